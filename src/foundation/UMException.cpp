#include <usermanagement/UMException.h>

#include "foundation/LogTable.h"

namespace usermanagement {

using detail::LogDefaults;
using detail::LogEntry;

namespace {

constexpr LogCategory kAccount = LogCategory::UserAccount;
constexpr LogSeverity kDebug = LogSeverity::Debug;

constexpr LogEntry kUmTable[] = {
    {UMError::UserAlreadyExists, "", "User already exists", kAccount, 17, kDebug},
    {UMError::PasswordError, "", "Password error", kAccount, 18, kDebug},
    {UMError::RoleError, "", "Role error", kAccount, 19, kDebug},
    {UMError::MainAccountUnremovable, "", "Main account unsupressible", kAccount, 20, kDebug},
    {UMError::MainAccountUndisable, "", "Main account undisable", kAccount, 21, kDebug},
    {UMError::UserNotFound, "", "User not found", kAccount, 22, kDebug},
    {UMError::MaxUsersReached, "", "Max users count reached", kAccount, 23, kDebug},
    {UMError::BadUserName, "", "Bad user name", kAccount, 24, kDebug},
    {UMError::RemoveUserForbidden, "", "Remove user forbidden", kAccount, 25, kDebug},
    {UMError::MissingParameter, "", "Missing parameter", kAccount, 26, kDebug},
};

// Account files and system database: the texts repeat those of codes 0..3; 13 skips id 30.
constexpr LogEntry kSystemTable[] = {
    {UMSystemError::FileContents, "", "User already exists", kAccount, 27, kDebug},
    {UMSystemError::FilesLocked, "", "Password error", kAccount, 28, kDebug},
    {UMSystemError::DatabaseLookup, "", "Role error", kAccount, 29, kDebug},
    {UMSystemError::FileTransaction, "", "Main account unsupressible", kAccount, 31, kDebug},
    {UMSystemError::TallyReset, "", "Failed-login count not reset", kAccount, 36, kDebug},
};

constexpr LogEntry kPmTable[] = {
    {PMError::UserNotFound, "", "User not found", kAccount, 32, kDebug},
    {PMError::UpdatePrivilegeFailed, "", "Update privilege failed", kAccount, 33, kDebug},
    {PMError::UpdateUserFailed, "", "Update user failed", kAccount, 34, kDebug},
    {PMError::MemoryAllocation, "", "Memory allocation error", kAccount, 35, kDebug},
};

}  // namespace

UMException::~UMException() = default;

void UMException::buildLogMessage(std::string& text, LogCategory& category, int& messageId, LogSeverity& severity) {
    applyLogEntry(kUmTable, m_errorId, LogDefaults{kAccount, 17, kDebug}, text, category, messageId, severity);
}

int UMException::getRangeClass() const { return 0; }

UMSystemErrorException::~UMSystemErrorException() = default;

void UMSystemErrorException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                             LogSeverity& severity) {
    applyLogEntry(kSystemTable, m_errorId, LogDefaults{kAccount, 27, kDebug}, text, category, messageId, severity);
}

PMException::~PMException() = default;

void PMException::buildLogMessage(std::string& text, LogCategory& category, int& messageId, LogSeverity& severity) {
    applyLogEntry(kPmTable, m_errorId, LogDefaults{kAccount, 32, kDebug}, text, category, messageId, severity);
}

}  // namespace usermanagement
