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
    {authnz::AuthNZError::RootNotAllowed, "RootNotAllowed", "Session - Root not allowed", kSession, 8, kDebug},
    {authnz::AuthNZError::InitPamFailed, "", "Session - Init pam failed", kSession, 9, kDebug},
    {authnz::AuthNZError::SetUserUidFailed, "SetUserUidFailed", "Session - Set user UID failed", kSession, 10, kDebug},
    {authnz::AuthNZError::InitError, "InitError", "Session - Init error", kSession, 11, kDebug},
    {authnz::AuthNZError::InvalidPAM, "InvalidPAM", "Session - Invalid PAM", kSession, 12, kDebug},
};

constexpr LogDefaults kAuthenticationDefaults{kSession, 5, kDebug};
constexpr LogEntry kAuthenticationTable[] = {
    // The trailing blank is part of the audit text.
    {authnz::AuthenticationError::InvalidCredentials, "InvalidCredentials", "Session - Authentication failed ", kSession, 4, kNotice},
    {authnz::AuthenticationError::NoToken, "NoToken", "Session - Token not found", kSession, 6, kDebug},
    {authnz::AuthenticationError::InvalidToken, "InvalidToken", "Session - Invalid token", kSession, 3, kNotice},
    {authnz::AuthenticationError::StrongAuthenticationWrongPassword, "", "Session - Strong authentication wrong password", kSession, 5, kDebug},
    {authnz::AuthenticationError::TokenRefused, "", "Session - Invalid token", kSession, 3, kNotice},
};

constexpr LogDefaults kAuthorizationDefaults{kSession, 16, kDebug};
constexpr LogEntry kAuthorizationTable[] = {
    {authnz::AuthorizationError::ExpiredCredentials, "ExpiredCredentials", "User account - Password expired", kAccount, 7, kWarning},
    {authnz::AuthorizationError::NotAuthorized, "NotAuthorized", "Session - Unauthorized", kSession, 7, kDebug},
    {authnz::AuthorizationError::ConcurrentSession, "ConcurrentSession", "Session - Concurrent session forbidden", kSession, 8, kDebug},
    {authnz::AuthorizationError::StrongAuthenticationWrongPassword, "", "Session - Strong authentication wrong password", kSession, 5, kDebug},
};

constexpr LogDefaults kUpdatePasswordDefaults{kAccount, 17, kDebug};
// Codes 22..39 name password-quality rules: no keyword, no text, the default message id.
constexpr LogEntry kUpdatePasswordTable[] = {
    {usermanagement::UpdatePasswordError::InvalidCredentials, "InvalidCredentials", "User account - Invalid credentials", kAccount, 20, kDebug},
    {usermanagement::UpdatePasswordError::NewPasswordTooLong, "NewPasswordTooLong", "User account - New password too long", kAccount, 17, kDebug},
    {usermanagement::UpdatePasswordError::PasswordSecurityRules, "PasswordSecurityRules", "User account - Password security rules", kAccount, 18, kDebug},
    {usermanagement::UpdatePasswordError::InvalidNewPassword, "InvalidNewPassword", "User account - Invalid new password", kAccount, 19, kDebug},
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
