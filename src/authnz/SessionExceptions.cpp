// Session and password-update failures.  Their log lines always end with the user in angle
// brackets, whether or not the code is listed.
#include <authnz/AuthNZException.h>
#include <usermanagement/UMException.h>

#include "foundation/LogTable.h"

namespace {

using authnz::AuthenticationError;
using authnz::AuthNZError;
using authnz::AuthorizationError;
using usermanagement::LogCategory;
using usermanagement::LogSeverity;
using usermanagement::UpdatePasswordError;
using usermanagement::detail::LogDefaults;
using usermanagement::detail::LogEntry;

constexpr LogCategory kSession = LogCategory::Session;
constexpr LogCategory kAccount = LogCategory::UserAccount;
constexpr LogSeverity kWarning = LogSeverity::Warning;
constexpr LogSeverity kNotice = LogSeverity::Notice;
constexpr LogSeverity kDebug = LogSeverity::Debug;

constexpr LogDefaults kAuthNZDefaults{kSession, 27, kDebug};
constexpr LogEntry kAuthNZTable[] = {
    {AuthNZError::RootNotAllowed, "RootNotAllowed", "Session - Root not allowed", kSession, 8, kDebug},
    {AuthNZError::InitPamFailed, "", "Session - Init pam failed", kSession, 9, kDebug},
    {AuthNZError::SetUserUidFailed, "SetUserUidFailed", "Session - Set user UID failed", kSession, 10, kDebug},
    {AuthNZError::InitError, "InitError", "Session - Init error", kSession, 11, kDebug},
    {AuthNZError::InvalidPAM, "InvalidPAM", "Session - Invalid PAM", kSession, 12, kDebug},
};

constexpr LogDefaults kAuthenticationDefaults{kSession, 5, kDebug};
constexpr LogEntry kAuthenticationTable[] = {
    // The trailing blank is part of the audit text.
    {AuthenticationError::InvalidCredentials, "InvalidCredentials", "Session - Authentication failed ", kSession, 4,
     kNotice},
    {AuthenticationError::NoToken, "NoToken", "Session - Token not found", kSession, 6, kDebug},
    {AuthenticationError::InvalidToken, "InvalidToken", "Session - Invalid token", kSession, 3, kNotice},
    {AuthenticationError::StrongAuthenticationWrongPassword, "", "Session - Strong authentication wrong password",
     kSession, 5, kDebug},
    {AuthenticationError::TokenRefused, "", "Session - Invalid token", kSession, 3, kNotice},
};

constexpr LogDefaults kAuthorizationDefaults{kSession, 16, kDebug};
constexpr LogEntry kAuthorizationTable[] = {
    {AuthorizationError::ExpiredCredentials, "ExpiredCredentials", "User account - Password expired", kAccount, 7,
     kWarning},
    {AuthorizationError::NotAuthorized, "NotAuthorized", "Session - Unauthorized", kSession, 7, kDebug},
    {AuthorizationError::ConcurrentSession, "ConcurrentSession", "Session - Concurrent session forbidden", kSession, 8,
     kDebug},
    {AuthorizationError::StrongAuthenticationWrongPassword, "", "Session - Strong authentication wrong password",
     kSession, 5, kDebug},
};

constexpr LogDefaults kUpdatePasswordDefaults{kAccount, 17, kDebug};
// Codes 22..39 name password-quality rules: no keyword, no text, the default message id.
constexpr LogEntry kUpdatePasswordTable[] = {
    {UpdatePasswordError::InvalidCredentials, "InvalidCredentials", "User account - Invalid credentials", kAccount, 20,
     kDebug},
    {UpdatePasswordError::NewPasswordTooLong, "NewPasswordTooLong", "User account - New password too long", kAccount,
     17, kDebug},
    {UpdatePasswordError::PasswordSecurityRules, "PasswordSecurityRules", "User account - Password security rules",
     kAccount, 18, kDebug},
    {UpdatePasswordError::InvalidNewPassword, "InvalidNewPassword", "User account - Invalid new password", kAccount, 19,
     kDebug},
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

void AuthNZException::buildLogMessage(std::string& text, LogCategory& category, int& messageId, LogSeverity& severity) {
    buildBracketed(kAuthNZTable, kAuthNZDefaults, m_errorId, getUser(), text, category, messageId, severity);
}

const char* AuthNZException::getError() const { return keywordOf(kAuthNZTable, m_errorId); }

int AuthNZException::getRangeClass() const { return 1; }

AuthenticationException::~AuthenticationException() = default;

void AuthenticationException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                              LogSeverity& severity) {
    buildBracketed(kAuthenticationTable, kAuthenticationDefaults, m_errorId, getUser(), text, category, messageId,
                   severity);
}

const char* AuthenticationException::getError() const { return keywordOf(kAuthenticationTable, m_errorId); }

int AuthenticationException::getRangeClass() const { return 1; }

AuthorizationException::~AuthorizationException() = default;

const char* AuthorizationException::what() const noexcept { return m_message.c_str(); }

void AuthorizationException::logCdsMessage() { logWithDetails(",for user:" + m_user); }

void AuthorizationException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                             LogSeverity& severity) {
    buildBracketed(kAuthorizationTable, kAuthorizationDefaults, m_errorId, getUser(), text, category, messageId,
                   severity);
}

const char* AuthorizationException::getError() const { return keywordOf(kAuthorizationTable, m_errorId); }

int AuthorizationException::getErrorId() const { return m_errorId; }

int AuthorizationException::getRangeClass() const { return 1; }

}  // namespace authnz

namespace usermanagement {

UpdatePasswordException::~UpdatePasswordException() = default;

void UpdatePasswordException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                              LogSeverity& severity) {
    buildBracketed(kUpdatePasswordTable, kUpdatePasswordDefaults, m_errorId, getUser(), text, category, messageId,
                   severity);
}

const char* UpdatePasswordException::getError() const { return keywordOf(kUpdatePasswordTable, m_errorId); }

}  // namespace usermanagement
