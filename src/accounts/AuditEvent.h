// The account audit events' ids and their one log call, shared by the event operations and the
// life-cycle operations that log an event of their own (created, deleted, password changed).
#pragma once

#include <string>

namespace usermanagement::detail {

// Event ids of the user-account category; 3 is unused, 7 and 9 belong to the session layer.
enum AuditEvent : int {
    AccountCreated = 1,
    AccountDeleted = 2,
    NameChanged = 4,
    ProfileChanged = 5,
    PasswordChanged = 6,
    PasswordReset = 8,
    AccountUnlocked = 10,
    AccountActivated = 11,
    AccountDeactivated = 12,
    // The migration's profile step found a carried-over account gone (removed or renamed by
    // another operation after the files were rebuilt) and left it out.
    AccountNotMigrated = 13,
};

// Category UserAccount, severity Notice, the calling thread's client address.
void logAccountEvent(AuditEvent id, const std::string& text);

}  // namespace usermanagement::detail
