// Creating, changing and removing stored accounts.
//
// Every operation first checks the whole request (rights, names, password rules, profile) and
// only then opens the account files, so a refused request leaves them untouched.  The files are
// changed under the system password-file lock, as root, through one transaction per file; all
// are installed together or not at all (AccountFiles).  Audit events are logged once the change
// is installed.
//
// An account's traces outside its passwd and shadow entries go with it: its name leaves every
// group member list, and the failed-login record of its uid is reset on removal and again on
// creation (the record is kept per uid, and uids are handed out again: a removed account's
// failures must not lock the next account given its uid at birth).  The reset is a process of
// its own (the tally tool through the shell), several times the cost of the rest of the
// operation: it runs unless the record is known to count nothing (noFailuresRecorded).  A new account is listed
// exactly in the groups its profile grants; a profile change moves its memberships, a rename
// renames them (ProfileGroups, files/GroupMembers.h).
#include <usermanagement/User.h>

#include <optional>

#include <systemutilities/ScriptLauncher.h>
#include <umlog/Ctx.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "access/Caller.h"
#include "accounts/AccountFiles.h"
#include "accounts/AccountGuards.h"
#include "accounts/AccountState.h"
#include "accounts/AuditEvent.h"
#include "accounts/Tally.h"
#include "accounts/ProfileGroups.h"
#include "files/EntryChecks.h"
#include "files/ObservedRemoval.h"
#include "files/UserName.h"
#include "foundation/Raise.h"

namespace usermanagement {

namespace {

using detail::raise;

constexpr unsigned int kNoAccount = 4294967295u;
// Makes the name-service cache daemon forget the old name and groups of an account.
constexpr const char* kReloadNameCache = "sudo /etc/init.d/S46unscd reload";

UserDefinition& definition() { return UserDefinition::GetUserDefinition(); }

bool isSet(const bool* flag) { return flag != nullptr && *flag; }

[[noreturn]] void roleNotAllowed(int profileId) {
    raise<UMException>(UMError::RoleError, profileId, " (profileId): Role not retieved or not allowed");
}

// The main account must stay usable, whichever path writes its shadow field: disabling it is
// refused, and so is a ready-made hash that disables or locks it by itself ("!!" is the
// library's own disabled mark, "!" and "*" make PAM refuse every password).  Otherwise a
// stored hash would lock the device's operators out through the password path, where the
// enable/disable path refuses to.
void keepMainAccountEnabled(unsigned int uid, const std::string& name, bool disabling, const std::string* password,
                            bool encrypted) {
    if (uid != definition().getBaseUid()) return;
    const bool lockingHash = password != nullptr && encrypted && !password->empty() &&
                             (password->front() == '!' || password->front() == '*');
    if (disabling || lockingHash)
        raise<UMException>(UMError::MainAccountUndisable, name, " :Forbidden to disable the main user");
}

// Makes the name-service cache forget the old name and groups of a changed account.  The
// change is installed and audited by then, so a reload that cannot even start is reported as
// the library's own failure whose message says that the change stands (a host catching only
// the library's exceptions would otherwise miss it, or retry a change that was made).
void reloadNameCache() {
    try {
        const detail::AsRoot root;
        (void)systemutilities::ScriptLauncher::exec(kReloadNameCache, true);
    } catch (const systemutilities::LaunchError& e) {
        throw UMSystemErrorException(UMSystemError::FileTransaction,
                                     "updateUser: the change is made, but the name-service cache reload failed: "
                                     "popen() failed!",
                                     e.getErrorDescription(), umlog::Ctx::getCtx().getUsername(), true);
    }
}

}  // namespace

User User::createUser(const std::string& name, const std::string& password, bool encrypted, int profileId, bool active,
                      bool mustChange, const bool* skipPasswordCheck) {
    int maxAge = -1, minAge = -1, thirdAge = -1;
    bool exemptBaseUser = true;
    const detail::CallerScope operation;
    UserDefinition& config = definition();
    config.checkRight(UserDefinition::CreateUser, nullptr);
    if (profileId < 1) raise<UMException>(UMError::RoleError, profileId, " (profileId): Role not found");

    User result(name, profileId, active);
    // What the files cannot hold is refused with the entry functions' own errors before
    // anything else looks at it: PAM would judge a password cut at a NUL byte.
    detail::checkPasswordToStore(name, password, PasswordType{encrypted}, active, "addEntryInShadowFile");
    // The password rules come before the name, so a weak password is reported first.
    if (!isSet(skipPasswordCheck)) result.checkPasswordStrenght(password);
    if (!config.isAValidUserName(name, kNoAccount)) raise<UMException>(UMError::BadUserName, name, " :Bad user name");
    // The configured name check may accept anything (the built-in one does).
    detail::checkUserName(name, "addEntryInPasswordFile");
    result.setUserName(name);
    config.getDBPasswordExpirationAge(maxAge, minAge, thirdAge, exemptBaseUser);
    result.m_profile = ProfileDefinition::GetProfileDefinition().getProfile(profileId);
    if (result.m_profile.getId() < 0) roleNotAllowed(profileId);

    const detail::ProfileGroups groups(result.m_profile);
    {
        detail::AccountFiles files(detail::AccountFiles::WithGroups);
        result.m_uid = addEntryInPasswordFile(files.passwd, result.getUserName(), result.m_gid);
        // The first account of the range becomes the main account: it is born enabled.
        keepMainAccountEnabled(result.m_uid, name, !active, &password, encrypted);
        addEntryInShadowFile(files.shadow, result.getUserName(), password, PasswordType{encrypted}, maxAge, minAge,
                             thirdAge, active, mustChange);
        files.updateMembers({"", name, groups.forNewAccount()});
        // The tally tool finds the account by name, which resolves only once the new passwd
        // file is installed; the reset runs then, still under the lock (no other operation can
        // rename or remove the account meanwhile), and a failing reset puts the files back:
        // an account that cannot log in with its own password is not created.
        files.install([&result] {
            LookLockUpdate stale;
            if (!detail::noFailuresRecorded(result.m_uid, definition().getTallyFilePath()))
                result.resetFailedLogins(stale);
        });
    }
    // The account exists from here on: its event goes out before anything that can still fail
    // (the read check of the refresh below), so that no created account is left unaudited.
    detail::logAccountEvent(detail::AccountCreated, "User account - created <" + name + ">");
    // The object is given what a lookup of the new account would read back, from what was just
    // written under the lock, instead of reading it back: each lookup of an account at the end
    // of the files reads them whole.  Name, uid and profile group are those of the passwd entry.
    // The profile is the catalogue's first of the group's name, as retrieveProfile finds it (the
    // catalogue resolved the group's id from that name).  The flags are those updateState reads
    // from the shadow entry as addEntryInShadowFile wrote it and from a tally that counts no
    // failure for the uid (none was recorded, or the reset above cleared it).  Only the hash
    // field's "!!" mark counts: a ready-made hash may bring one of its own, a computed one
    // starts with "$".  The refresh's read check is kept: the policy answers as before.
    config.checkRight(UserDefinition::ReadUser, nullptr);
    result.m_profile = ProfileDefinition::GetProfileDefinition().getProfile(result.m_profile.getName());
    const std::string storedMark = active ? (encrypted ? password.substr(0, 2) : std::string()) : "!!";
    const long today = detail::daysSinceEpoch();
    struct spwd written {};
    written.sp_pwdp = const_cast<char*>(storedMark.c_str());
    written.sp_lstchg = mustChange ? 0 : today;
    written.sp_max = maxAge;
    written.sp_inact = -1;
    written.sp_expire = thirdAge;
    const detail::ShadowState state = detail::shadowStateOf(written, today);
    result.m_isActive = state.active;
    result.m_isPasswordExpired = state.passwordExpired;
    result.m_isAccountExpired = state.accountExpired;
    result.m_isLocked = detail::lockedByFailures(0, detail::failedLoginLimit()) || state.inactive;
    return result;
}

User User::createUser(const std::string& name, const std::string& password, int profileId, bool active, bool mustChange,
                      const bool* skipPasswordCheck) {
    return createUser(name, password, false, profileId, active, mustChange, skipPasswordCheck);
}

User User::createUserWithEncryptedPassword(const std::string& name, const std::string& password, int profileId,
                                           bool active, bool mustChange, const bool* skipPasswordCheck) {
    return createUser(name, password, true, profileId, active, mustChange, skipPasswordCheck);
}

void User::updateUser(const std::string* newName, const int* profileId, const bool* active, const std::string* password,
                      bool encrypted, const bool* mustChange, const bool* skipPasswordCheck) {
    const detail::CallerScope operation;
    UserDefinition& config = definition();
    // Changing at most the password and the must-change day is a password operation, which
    // the holder of the account may do; anything else, or asking to skip the password rules,
    // is an account update.
    const bool accountUpdate = newName != nullptr || profileId != nullptr || active != nullptr || skipPasswordCheck;
    config.checkRight(accountUpdate ? UserDefinition::UpdateUser : UserDefinition::UpdatePassword, this);
    detail::requireReachable(m_uid, m_userName);
    if (newName != nullptr && !config.isAValidUserName(*newName, m_uid))
        raise<UMException>(UMError::BadUserName, *newName, " :Bad user name");
    keepMainAccountEnabled(m_uid, m_userName, active != nullptr && !*active, password, encrypted);
    // What the files cannot hold is refused before PAM or the files see it (see createUser).
    if (newName != nullptr) detail::checkUserName(*newName, "updateEntryInPasswordFile");
    if (password != nullptr) {
        detail::checkPasswordToStore(m_userName, *password, PasswordType{encrypted}, isSet(active),
                                     "updateEntryInShadowFile");
        if (!isSet(skipPasswordCheck)) checkPasswordStrenght(*password);
    }
    // The object keeps the group it was read with until the change is installed: a failure
    // on the way leaves it naming the stored account, which the next operation checks.
    unsigned int gid = m_gid;
    if (profileId != nullptr) {
        m_profile = ProfileDefinition::GetProfileDefinition().getProfile(*profileId);
        if (m_profile.getId() < 0) roleNotAllowed(*profileId);
        gid = m_profile.getGid();
    }

    std::optional<detail::ProfileGroups> newGroups;
    if (profileId != nullptr) newGroups.emplace(m_profile);
    const bool membersChange = newName != nullptr || profileId != nullptr;
    LookUpdateShadow lookShadow;
    LookUpdatePasswd lookPasswd;
    {
        detail::AccountFiles files(membersChange ? detail::AccountFiles::WithGroups : detail::AccountFiles::Accounts);
        // The passwd entry is found by uid and the shadow entry by name: both must still be
        // this account's.
        detail::confirmStoredAccount(m_uid, m_userName, m_gid);
        updateEntryInPasswordFile(files.passwd, m_uid, gid, newName, lookPasswd);
        updateEntryInShadowFile(files.shadow, m_userName, newName, password, PasswordType{encrypted}, active,
                                mustChange, lookShadow);
        if (membersChange)
            files.updateMembers({m_userName, newName != nullptr ? *newName : m_userName,
                                 newGroups ? newGroups->forProfileChange() : detail::keepMemberships()});
        // Re-enabling or a new password ends a lock by failed logins.  The tally tool finds the
        // account by its current name, which the live files still hold until install().
        if (isSet(active) || password != nullptr) {
            LookLockUpdate unlocked;
            resetFailedLogins(unlocked);
            logUserLockEvent(unlocked);
        }
        files.install();
        m_gid = gid;
        if (newName != nullptr) m_userName = *newName;
    }
    // The change is installed: its events go out before anything that can still fail (the
    // cache reload, the refresh of this object), so no installed change is left unaudited.
    logPwdEvent(lookPasswd);
    logShadowdEvent(lookShadow);
    if (newName != nullptr || profileId != nullptr) reloadNameCache();
    retrieveProfile();
    updateState();
}

void User::updateUser(const std::string* newName, const int* profileId, const bool* active, const std::string* password,
                      const bool* mustChange, const bool* skipPasswordCheck) {
    updateUser(newName, profileId, active, password, false, mustChange, skipPasswordCheck);
}

void User::updateUserWithEncryptedPassword(const std::string* newName, const int* profileId, const bool* active,
                                           const std::string* password, const bool* mustChange,
                                           const bool* skipPasswordCheck) {
    updateUser(newName, profileId, active, password, true, mustChange, skipPasswordCheck);
}

void User::removeUser() {
    const detail::CallerScope operation;
    UserDefinition& config = definition();
    config.checkRight(UserDefinition::RemoveUser, this);
    detail::requireReachable(m_uid, m_userName);
    if (m_uid == config.getBaseUid())
        raise<UMException>(UMError::MainAccountUnremovable, m_userName, " :Forbidden deletion of the main user");
    // The object's name is not looked up again by its uid: what the object names is confirmed
    // under the lock, where no lookup made out here can be outdated, and a stale object is
    // refused there (41) whatever its name.
    if (m_uid == operation.uid())
        raise<UMException>(UMError::RemoveUserForbidden, m_userName, " :Forbidden to remove the current user");

    detail::AccountFiles files(detail::AccountFiles::WithGroups);
    // The shadow entry goes by name and the passwd entry by uid: both must be this account's.
    // The removals read every entry of both files anyway, so they count what the files hold of
    // the account on the way, and the check is made on that count (the same lock, the same
    // files) before anything else happens and before anything is installed: a refused removal
    // leaves the files as they were.  Checking first would read each file through once more.
    detail::StoredAccountCount count(m_uid, m_userName);
    detail::removeEntryInShadowFile(files.shadow, m_userName, [&](const struct spwd& e) { count.shadowEntry(e); });
    detail::removeEntryInPasswordFile(files.passwd, m_uid, [&](const struct passwd& e) { count.passwdEntry(e); });
    detail::confirmStoredAccount(count, m_uid, m_userName, m_gid);
    files.updateMembers({m_userName, "", detail::keepMemberships()});
    // The tally tool finds the account by name, which resolves only until the new passwd file
    // is installed: the reset runs here, under the lock.  Should the installation fail after
    // it, the account stays with no failures counted, as after an unlock by a manager.  A name
    // the library would not write (left by another tool) is not handed to the tool, so that such
    // an account can still be removed; the record of its uid is reset when the next account
    // takes the uid.
    LookLockUpdate removed;
    if (detail::userNameRefusal(m_userName) == nullptr && !detail::noFailuresRecorded(m_uid, config.getTallyFilePath()))
        resetFailedLogins(removed);
    files.install();
    detail::logAccountEvent(detail::AccountDeleted, "User account - deleted <" + m_userName + ">");
}

}  // namespace usermanagement
