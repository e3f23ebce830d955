#include <usermanagement/UMException.h>

#include "foundation/LogTable.h"

namespace usermanagement {

using detail::LogDefaults;
using detail::LogEntry;

namespace {

constexpr LogCategory kAccount = LogCategory::UserAccount;
constexpr LogSeverity kDebug = LogSeverity::Debug;

constexpr LogEntry kUmTable[] = {
    {0, "", "User already exists", kAccount, 17, kDebug},
    {1, "", "Password error", kAccount, 18, kDebug},
    {2, "", "Role error", kAccount, 19, kDebug},
    {3, "", "Main account unsupressible", kAccount, 20, kDebug},
    {4, "", "Main account undisable", kAccount, 21, kDebug},
    {5, "", "User not found", kAccount, 22, kDebug},
    {6, "", "Max users count reached", kAccount, 23, kDebug},
    {7, "", "Bad user name", kAccount, 24, kDebug},
    {8, "", "Remove user forbidden", kAccount, 25, kDebug},
    {9, "", "Missing parameter", kAccount, 26, kDebug},
};

// Account files and system database: the texts repeat those of codes 0..3; 13 skips id 30.
constexpr LogEntry kSystemTable[] = {
    {10, "", "User already exists", kAccount, 27, kDebug},
    {11, "", "Password error", kAccount, 28, kDebug},
    {12, "", "Role error", kAccount, 29, kDebug},
    {13, "", "Main account unsupressible", kAccount, 31, kDebug},
};

constexpr LogEntry kPmTable[] = {
    {14, "", "User not found", kAccount, 32, kDebug},
    {15, "", "Update privilege failed", kAccount, 33, kDebug},
    {16, "", "Update user failed", kAccount, 34, kDebug},
    {17, "", "Memory allocation error", kAccount, 35, kDebug},
};

}  // namespace

UMException::~UMException() = default;

void UMException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                  LogSeverity& severity) {
    applyLogEntry(kUmTable, m_errorId, LogDefaults{kAccount, 17, kDebug}, text, category, messageId,
                  severity);
}

int UMException::getRangeClass() const { return 0; }

UMSystemErrorException::~UMSystemErrorException() = default;

void UMSystemErrorException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                             LogSeverity& severity) {
    applyLogEntry(kSystemTable, m_errorId, LogDefaults{kAccount, 27, kDebug}, text, category, messageId,
                  severity);
}

PMException::~PMException() = default;

void PMException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                  LogSeverity& severity) {
    applyLogEntry(kPmTable, m_errorId, LogDefaults{kAccount, 32, kDebug}, text, category, messageId,
                  severity);
}

}  // namespace usermanagement
