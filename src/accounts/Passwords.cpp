// Password changes, the password rules, the check of the caller's own password, and unlocking.
//
// A holder changing their own password goes through PAM, which verifies the old password and
// stores the new one; a reset for another account writes the shadow entry through a file
// transaction.  PAM sessions are made per call and owned by a shared_ptr for its span.
#include <usermanagement/User.h>

#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <systemutilities/LinuxUserSystem.h>
#include <systemutilities/ScriptLauncher.h>
#include <umlog/Ctx.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>
#include <usermanagement/Utilities.h>

#include "access/Caller.h"
#include "access/DatabaseLookup.h"
#include "accounts/AccountGuards.h"
#include "accounts/AccountState.h"
#include "accounts/AuditEvent.h"
#include "accounts/Tally.h"
#include "accounts/TallyCommand.h"
#include "files/EntryChecks.h"
#include "files/PasswordFileLock.h"
#include "foundation/Raise.h"
#include "system/AsRoot.h"
#include "system/ReadToEnd.h"

namespace usermanagement {

namespace {

using authnz::WebPam;
using Session = std::shared_ptr<WebPam>;

Session session(const std::string& user, const std::string& ip, WebPam::PamType type) {
    return Session(WebPam::GetPAM(user, ip, type));
}

// AuthNZException 4: PAM gave no session.
void requireSession(const Session& pam, const std::string& user) {
    if (!pam)
        throw authnz::AuthNZException(authnz::AuthNZError::InvalidPAM, "Internal Error", "Pam null pointer", user,
                                      true);
}

// Runs the tally tool's reset and makes sure it happened: the command must start, exit with 0,
// and the account's count must read 0 afterwards, unless what it counts failed after the start.  UMSystemErrorException 47 otherwise, with
// the reason (errno of a launch that failed, the exit status) in its description.
void runTallyReset(const std::string& command, unsigned int uid) {
    // A login that fails while the reset runs is counted anew (the login path does not wait
    // for the account files): a count whose last failure came after the start is such a new
    // failure, not a reset that did not happen.  Otherwise anyone trying passwords for an
    // account could make a manager's removal or reset of it fail.
    const std::uint64_t started = static_cast<std::uint64_t>(std::time(nullptr));
    std::string reason;
    FILE* stream = systemutilities::ScriptLauncher::Popen(command.c_str(), "r");
    if (stream == nullptr) {
        reason = detail::concat("the command did not start: ", std::strerror(errno));
    } else {
        // Read to the end of the output, or closing the pipe could end the tool mid-reset.
        detail::readToEnd(stream, nullptr);
        const int status = systemutilities::ScriptLauncher::Pclose(stream);
        if (status == -1)
            reason = "the command's status could not be had";
        else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            reason = WIFEXITED(status) ? detail::concat("the command exited with ", WEXITSTATUS(status))
                                       : detail::concat("the command was ended by signal ", WTERMSIG(status));
        else if (const auto after = detail::tallyEntryOf(uid, UserDefinition::GetUserDefinition().getTallyFilePath());
                 after.count != 0 && after.lastFailure < started)
            reason = "the count is not 0 after the command";
    }
    if (!reason.empty())
        throw UMSystemErrorException(UMSystemError::TallyReset, "unLock error, the failed-login count was not reset",
                                     detail::concat(reason, " (uid ", uid, ")"), umlog::Ctx::getCtx().getUsername(),
                                     true);
}

// A new password PAM is to store: what the shadow file could not take from the library is not
// handed to PAM either (a NUL byte would cut the password short there).
void checkNewPassword(const std::string& name, const std::string& password) {
    detail::checkPasswordToStore(name, password, PasswordType{false}, false, "updateEntryInShadowFile");
}

// The account check that completes a login after a right password.  A failed-login module may
// count every authentication as a failure until the account check resets it: without this, a
// right password checked here would count against the holder, and three confirmations would
// lock the account.  A password that must be changed does not undo the authentication.
void acceptAsLogin(WebPam& pam) {
    try {
        pam.pamAccount();
    } catch (authnz::AuthorizationException& expired) {
        if (expired.getErrorId() != authnz::AuthorizationError::ExpiredCredentials) throw;
    }
}

// Whether the failed-login count of `uid` has reached the configured limit.  Read as root: the
// tally file is root's.
bool lockedByFailedLogins(unsigned int uid) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    int limit = -1;
    config.getDBLockCount(limit);
    if (limit == -1) return false;
    const detail::AsRoot root;
    return detail::lockedByFailures(utilities::getLockCount(uid, config.getTallyFilePath()), limit);
}

// The holder's current password, checked the way a web login checks it, before PAM is asked to
// change it.  The password-change stack verifies the old password without counting a failure,
// so guessing through a password change was unlimited while logins lock after a few attempts.
// Authenticating through the web-login service first makes every wrong guess count in the same
// failed-login record, against the same limit, with the same "locked" event as a login; the
// account check that follows a right password resets the count, as after a login.  A locked
// account is refused before anything is tried: it changes its password once a manager has
// unlocked it.  A password that must be changed (expired) is what the change is for, so the
// account check's "expired" answer does not stop it.  The account is the one PAM will change,
// found by `name` (an object's uid may be stale): outside the managed range only the process's
// own root may change it.  Root cannot log in on the web; its holder change goes to PAM directly.
void verifyCurrentPassword(const std::string& name, const std::string& password, const std::string& ip) {
    using usermanagement::UpdatePasswordError;
    unsigned int uid = static_cast<unsigned int>(-1);
    // An unknown name is left to the login below, which answers as for a wrong password.
    if (systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &uid, nullptr)) detail::requireReachable(uid, name);
    if (lockedByFailedLogins(uid))
        throw UpdatePasswordException(UpdatePasswordError::InvalidCredentials, "Invalid Credentials",
                                      "locked by failed logins: unlock the account first", name, true);
    if (uid == 0) return;
    const Session pam = session(name, ip, WebPam::WebLogin);
    requireSession(pam, name);
    try {
        pam->pamAuthentication(password.c_str());
    } catch (authnz::AuthenticationException& wrong) {
        throw UpdatePasswordException(UpdatePasswordError::InvalidCredentials, "Invalid Credentials",
                                      wrong.getErrorDescription(), name, true);
    }
    acceptAsLogin(*pam);
}

}  // namespace

void User::updatePassword(std::string& oldPassword, std::string& newPassword, const std::string& ip) {
    const detail::CallerScope operation;
    checkNewPassword(getUserName(), newPassword);
    verifyCurrentPassword(m_userName, oldPassword, ip);
    const Session pam = session(getUserName(), ip, WebPam::WebLogin);
    requireSession(pam, getUserName());
    pam->pamChauthtok(oldPassword.c_str(), newPassword.c_str());
    detail::logAccountEvent(detail::PasswordChanged, "User account - password changed");
}

void User::updateAnyUserPassword(const std::string& name, const std::string& oldPassword,
                                 const std::string& newPassword, const std::string& ip) {
    const detail::CallerScope operation;
    checkNewPassword(name, newPassword);
    const Session pam = session(name, ip, WebPam::WebLogin);
    const User account(name);
    requireSession(pam, name);
    verifyCurrentPassword(name, oldPassword, ip);
    pam->pamChauthtok(oldPassword.c_str(), newPassword.c_str());
    detail::logAccountEvent(detail::PasswordChanged, "User account - password changed <" + name + ">");
}

void User::updateAnyUserPassword(const std::string& name, const std::string& newPassword, bool mustChange,
                                 const std::string& /*ip*/, bool checkPassword) {
    const detail::CallerScope operation;
    UserDefinition& config = UserDefinition::GetUserDefinition();
    config.checkRight(UserDefinition::UpdatePassword, this);
    User target(name);
    // The account written is `name`, not this object: the rights are judged against it too.
    // Judged with this object alone, an account allowed to change its own password could reset
    // anyone's by calling the reset on its own object.
    config.checkRight(UserDefinition::UpdatePassword, &target);
    detail::requireReachable(target.m_uid, name);
    checkNewPassword(name, newPassword);
    if (checkPassword) checkPasswordStrenght(newPassword);

    LookUpdateShadow look;
    {
        const detail::AsRoot root;
        FileSystemUpdate shadow(config.getShadowFilePath(), config.getShadowTmpFilePath(), true);
        shadow.prepareSystemFiles();
        // Under the lock: the account looked up is still the one of that name, and this object
        // (whose name the event carries) still names its own account.
        detail::confirmStoredAccount(target.m_uid, name, target.m_gid);
        detail::confirmStoredAccount(m_uid, m_userName, m_gid);
        updateEntryInShadowFile(shadow, name, nullptr, &newPassword, PasswordType{false}, nullptr, &mustChange, look);
        LookLockUpdate unlocked;
        target.resetFailedLogins(unlocked);
        target.logUserLockEvent(unlocked);
        shadow.finalyzeSystemFiles();
        logShadowdEvent(look);
    }
}

void User::checkPasswordStrenght(const std::string& password) {
    umlog::Ctx& context = umlog::Ctx::getCtx();
    const Session pam = session(context.getUsername(), context.getIp(), WebPam::PasswordCheck);
    requireSession(pam, getUserName());
    pam->pamChauthtok("", password.c_str());
}

bool User::checkCurrentUserPasswd(const std::string& password) {
    const User current;
    const Session pam = session(current.getUserName(), umlog::Ctx::getCtx().getIp(), WebPam::WebLogin);
    if (!pam) return false;
    try {
        pam->pamAuthentication(password.c_str());
        acceptAsLogin(*pam);
        return true;
    } catch (authnz::AuthenticationException& refused) {
        // The caller only learns true or false, so the failed attempt is logged here.
        refused.logCdsMessage();
        return false;
    }
}

void User::unLock() {
    const detail::CallerScope operation;
    UserDefinition::GetUserDefinition().checkRight(UserDefinition::UpdateUser, this);
    detail::requireReachable(m_uid, m_userName);
    LookLockUpdate look;
    {
        // The tally tool finds the account by name: under the lock, the name must still be this
        // account's, or a stale object would unlock whoever holds the name now.
        const detail::AsRoot root;
        const detail::PasswordFileLock lock("unLock:password files locked");
        detail::confirmStoredAccount(m_uid, m_userName, m_gid);
        resetFailedLogins(look);
    }
    logUserLockEvent(look);
}

void User::resetFailedLogins(LookLockUpdate& look) {
    // The name goes to a command line and to the tally tool's lookup: only a name the library
    // would write itself goes there (an account another tool named "10001" would reset the
    // count of uid 10001).  A refused one is renamed first.
    detail::checkUserName(m_userName, "unLock");
    UserDefinition& config = UserDefinition::GetUserDefinition();
    const std::string command = detail::tallyResetCommand(config.getTallyFilePath(), m_userName);
    {
        // As root, once the caller's rights were checked: the tally file is root's.  A thread
        // acting as a user manager (a web request) would otherwise read no count and run a
        // reset that cannot write the file: the account would stay locked.
        const detail::AsRoot root;
        // The files were confirmed under the lock, but the tool finds the account through the
        // name service, which a cache daemon may answer from before they changed (a name
        // removed and given to a new account within the cache's lifetime still gives the old
        // uid, now another account's).  The tool would then clear that account's count: the
        // name service must give this account's uid, or nothing is reset.
        const auto byName = detail::userByName(m_userName.c_str());
        if (!detail::foundOrRaise(byName, "getpwnam_r") || byName.entry.pw_uid != m_uid)
            detail::raise<UMException>(UMError::StaleAccount, m_userName,
                               " :The name service does not give this account for the name (uid ", m_uid,
                               "); the failed-login count was not reset");
        retrieveLockState(look);
        // The reset runs whether or not the count reached the limit.  Its success is checked:
        // an operation that reports an account unlocked (or a new account clean) while the
        // count is still there would leave an operator locked out with an audit trail saying
        // otherwise.
        runTallyReset(command, m_uid);
    }
    if (m_isLocked) look.unlocked = true;
    m_isLocked = false;
}

}  // namespace usermanagement
