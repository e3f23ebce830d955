// Session and password-update failures.  Their log lines always end with the user in angle
// brackets, whether or not the code is listed.
#include <authnz/AuthNZException.h>
#include <usermanagement/UMException.h>

#include "foundation/LogTable.h"

namespace {

using usermanagement::LogCategory;
using usermanagement::LogSeverity;
using usermanagement::detail::LogDefaults;
using usermanagement::detail::LogEntry;

constexpr LogCategory kSession = LogCategory::Session;
constexpr LogCategory kAccount = LogCategory::UserAccount;
constexpr LogSeverity kWarning = LogSeverity::Warning;
constexpr LogSeverity kNotice = LogSeverity::Notice;
constexpr LogSeverity kDebug = LogSeverity::Debug;

constexpr LogDefaults kAuthNZDefaults{kSession, 27, kDebug};
constexpr LogEntry kAuthNZTable[] = {
    {0, "RootNotAllowed", "Session - Root not allowed", kSession, 8, kDebug},
    {1, "", "Session - Init pam failed", kSession, 9, kDebug},
    {2, "SetUserUidFailed", "Session - Set user UID failed", kSession, 10, kDebug},
    {3, "InitError", "Session - Init error", kSession, 11, kDebug},
    {4, "InvalidPAM", "Session - Invalid PAM", kSession, 12, kDebug},
};

constexpr LogDefaults kAuthenticationDefaults{kSession, 5, kDebug};
constexpr LogEntry kAuthenticationTable[] = {
    // The trailing blank is part of the audit text.
    {200, "InvalidCredentials", "Session - Authentication failed ", kSession, 4, kNotice},
    {201, "NoToken", "Session - Token not found", kSession, 6, kDebug},
    {202, "InvalidToken", "Session - Invalid token", kSession, 3, kNotice},
    {203, "", "Session - Strong authentication wrong password", kSession, 5, kDebug},
    {204, "", "Session - Invalid token", kSession, 3, kNotice},
};

constexpr LogDefaults kAuthorizationDefaults{kSession, 16, kDebug};
constexpr LogEntry kAuthorizationTable[] = {
    {301, "ExpiredCredentials", "User account - Password expired", kAccount, 7, kWarning},
    {302, "NotAuthorized", "Session - Unauthorized", kSession, 7, kDebug},
    {303, "ConcurrentSession", "Session - Concurrent session forbidden", kSession, 8, kDebug},
    {304, "", "Session - Strong authentication wrong password", kSession, 5, kDebug},
};

constexpr LogDefaults kUpdatePasswordDefaults{kAccount, 17, kDebug};
// Codes 22..39 name password-quality rules: no keyword, no text, the default message id.
constexpr LogEntry kUpdatePasswordTable[] = {
    {18, "InvalidCredentials", "User account - Invalid credentials", kAccount, 20, kDebug},
    {19, "NewPasswordTooLong", "User account - New password too long", kAccount, 17, kDebug},
    {20, "PasswordSecurityRules", "User account - Password security rules", kAccount, 18, kDebug},
    {21, "InvalidNewPassword", "User account - Invalid new password", kAccount, 19, kDebug},
};

template <std::size_t N>
void buildBracketed(const LogEntry (&table)[N], const LogDefaults& defaults, int code, const std::string& user,
                    std::string& text, LogCategory& category, int& messageId, LogSeverity& severity) {
    applyLogEntry(table, code, defaults, text, category, messageId, severity);
    text += " <";
    text += user;
    text += ">";
}

}  // namespace

namespace authnz {

AuthNZException::~AuthNZException() = default;

void AuthNZException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                      LogSeverity& severity) {
    buildBracketed(kAuthNZTable, kAuthNZDefaults, m_errorId, getUser(), text, category, messageId, severity);
}

const char* AuthNZException::getError() const { return keywordOf(kAuthNZTable, m_errorId); }

int AuthNZException::getRangeClass() const { return 1; }

AuthenticationException::~AuthenticationException() = default;

void AuthenticationException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                              LogSeverity& severity) {
    buildBracketed(kAuthenticationTable, kAuthenticationDefaults, m_errorId, getUser(), text, category,
                   messageId, severity);
}

const char* AuthenticationException::getError() const { return keywordOf(kAuthenticationTable, m_errorId); }

int AuthenticationException::getRangeClass() const { return 1; }

AuthorizationException::~AuthorizationException() = default;

const char* AuthorizationException::what() const noexcept { return m_message.c_str(); }

void AuthorizationException::logCdsMessage() {
    if (!m_logEnabled) return;
    std::string text;
    LogCategory category = LogCategory::General;
    int messageId = 0;
    LogSeverity severity = LogSeverity::Debug;
    buildLogMessage(text, category, messageId, severity);
    if (severity == LogSeverity::Debug) {
        text += ",for user:";
        text += m_user;
        appendDetails(text);
    }
    sendToSink(text, category, messageId, severity);
}

void AuthorizationException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                             LogSeverity& severity) {
    buildBracketed(kAuthorizationTable, kAuthorizationDefaults, m_errorId, getUser(), text, category,
                   messageId, severity);
}

const char* AuthorizationException::getError() const { return keywordOf(kAuthorizationTable, m_errorId); }

int AuthorizationException::getErrorId() const { return m_errorId; }

int AuthorizationException::getRangeClass() const { return 1; }

}  // namespace authnz

namespace usermanagement {

UpdatePasswordException::~UpdatePasswordException() = default;

void UpdatePasswordException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                              LogSeverity& severity) {
    buildBracketed(kUpdatePasswordTable, kUpdatePasswordDefaults, m_errorId, getUser(), text, category,
                   messageId, severity);
}

const char* UpdatePasswordException::getError() const { return keywordOf(kUpdatePasswordTable, m_errorId); }

}  // namespace usermanagement
