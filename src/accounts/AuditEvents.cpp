// Audit events: one log call per changed aspect of an account, category UserAccount, severity
// Notice, the client address of the calling thread's log context.  Failures are no events:
// a failed operation's exception logs itself.
#include <usermanagement/User.h>

#include <string>

#include <umlog/Ctx.h>
#include <usermanagement/ProfileDefinition.h>

#include "accounts/AuditEvent.h"
#include "foundation/LogLine.h"

namespace usermanagement {

namespace detail {

void logAccountEvent(AuditEvent id, const std::string& text) {
    logToSink(LogCategory::UserAccount, id, LogSeverity::Notice, umlog::Ctx::getCtx().getIp(), text);
}

}  // namespace detail

namespace {

std::string named(const std::string& name) { return "<" + name + ">"; }

}  // namespace

void User::logPwdEvent(LookUpdatePasswd& look) {
    if (look.nameUpdated)
        detail::logAccountEvent(detail::NameChanged, "User account - name changed from " + named(look.oldName) +
                                                         " to " + named(getUserName()));
    if (look.profileUpdated) {
        const UmProfile previous = ProfileDefinition::GetProfileDefinition().getProfile(look.oldGid);
        detail::logAccountEvent(detail::ProfileChanged, "User account - profile of " + named(getUserName()) +
                                                            " changed from " + named(previous.getName()) + " to " +
                                                            named(m_profile.getName()));
    }
}

void User::logShadowdEvent(LookUpdateShadow& look) {
    if (look.passwordUpdated) {
        if (look.selfUpdate)
            detail::logAccountEvent(detail::PasswordChanged, "User account - password changed");
        else
            detail::logAccountEvent(detail::PasswordReset, "User account - password reset " + named(getUserName()));
    }
    if (look.activation == 0)
        detail::logAccountEvent(detail::AccountActivated, "User account - activated " + named(getUserName()));
    else if (look.activation == 1)
        detail::logAccountEvent(detail::AccountDeactivated, "User account - deactivated " + named(getUserName()));
}

void User::logUserLockEvent(LookLockUpdate& look) {
    if (look.unlocked)
        detail::logAccountEvent(detail::AccountUnlocked, "User account - unlocked " + named(getUserName()));
}

}  // namespace usermanagement
