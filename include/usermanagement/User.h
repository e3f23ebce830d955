// One managed account as the library sees it: ids, name, profile, four state flags and a cached
// list of its groups.  An object looks itself up in the account database and the profile
// catalogue when it is built, and reads its state from the tally and the shadow file on
// updateState().  The same class carries the account's life-cycle operations and its audit
// events.
//
//     User viewer("viewer");            // lookup, profile, then the ReadUser rights check
//     viewer.updateState();             // flags from the tally and the shadow entry
//     if (viewer.isLocked()) ...
//
// The class is part of the binary interface: its fields, their order and its one virtual
// operation (the destructor) are fixed.
#pragma once

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include <usermanagement/Export.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UmGroup.h>

namespace usermanagement {

class User;
namespace utilities {
TVC_UM_EXPORT std::vector<User> getUserList();  // Utilities.h
}

// What a lock-state check or an unlock found; the caller creates it with all three false and
// nothing here ever resets a field.
struct TVC_UM_EXPORT LookLockUpdate {
    bool locked = false;      // the failed-login count has reached the limit
    bool unlocked = false;    // unLock() found the account locked and reset its count
    bool justLocked = false;  // the count equals the limit: the last failure locked the account
};

class TVC_UM_EXPORT User {
public:
    // The account that runs the process (its effective user id); no rights check.
    User();
    // Looked up by name (UMException 5 after the configured pause when unknown), then the
    // ReadUser rights check.
    explicit User(const std::string& name);
    // Looked up by user id, likewise.
    explicit User(unsigned int uid);
    // An account that is not stored yet, with the catalogue's profile `profileId`; no lookup,
    // no rights check.
    User(std::string name, int profileId, bool active);
    User(const User& other);
    User(User&& other) noexcept;
    User& operator=(const User& other);
    User& operator=(User&& other) noexcept;
    virtual ~User();

    void swap(User& other) noexcept;
    // Same user id, primary group id and name; profile, flags and group cache are ignored.
    bool operator==(const User& other) const;
    bool operator!=(const User& other) const;

    std::string getUserName() const;
    // Changes the object only; renaming an account goes through updateUser.
    void setUserName(const std::string& name);
    // Whether this account is the one the process runs as at this moment.
    bool isHimSelf() const;

    unsigned int getUid() const { return m_uid; }
    unsigned int getGid() const { return m_gid; }
    const UmProfile& getProfile() const { return m_profile; }
    bool isActive() const { return m_isActive; }
    bool isPasswordExpired() const { return m_isPasswordExpired; }
    bool isLocked() const { return m_isLocked; }
    bool isAccountExpired() const { return m_isAccountExpired; }

    // Lookups: ids from the name; name and gid from the id (only while the name is "nobody"
    // or the gid unknown); a group's id; the profile of the primary group.
    unsigned int retrieveUID();
    void retrieveUserName();
    unsigned int retrieveGUID(const char* groupName);
    void retrieveProfile();

    // The four flags from the tally file and the shadow entry (ReadUser rights check first;
    // reads the shadow file as root under the password-file lock).
    void updateState();
    // m_isLocked from the tally file, reported into `look`; never throws a std::exception.
    void retrieveLockState(LookLockUpdate& look);
    // The stored hash without a "!!" prefix; empty when the account has no shadow entry.  Only
    // for root and the user manager (rights ManageUsers): a hash is what an offline password
    // guesser needs.
    std::string getEncryptedPassword() const;
    // All groups of the account (primary group included), computed once and cached; null when
    // the cache cannot be allocated.  The array belongs to the object.
    gid_t* getUserGroupsIds(int& count) const;

    bool isBelongingToRole(const std::string& roleName) const;
    bool isBelongingToRole(int roleId) const;
    bool isBelongingToGroup(const std::string& groupName) const;
    bool isBelongingToGroup(unsigned int gid) const;

    // Whether a group's null-terminated member list names this account; every matching entry
    // is replaced by `replacement`'s characters when given (the string must outlive the list).
    // `count` receives the number of entries, not the position of the match.
    bool isPresentInListeName(char** list, const std::string* replacement, int& count);

    // Life cycle.  Each operation checks the caller's rights and the whole request before it
    // opens a file, then rewrites the password and shadow files as root under the system
    // password-file lock, and the group file and the group shadow file (beside the group file,
    // when the device has one) when the account's group memberships change; all files are
    // installed or none is.  Optional values are
    // pointers: null keeps the item.  `skipPasswordCheck` null or false: the password is first
    // judged by the password-rules PAM service.
    //
    // Every operation that changes a stored account (update, remove, the password operations,
    // unLock) also refuses, whatever the rights policy says:
    //   - an account outside the managed uid range unless the calling thread is the process's
    //     own root (authnz::AuthorizationException 305): a thread acting as an account never
    //     changes root, the web server's account or a service account;
    //   - an object that no longer names its stored account (UMException 41): under the
    //     password-file lock, the object's uid and name must still be one passwd entry with a
    //     shadow entry of that name.  Look the account up again after a rename.
    //
    // createUser: rights CreateUser; UMException 2 for a profile id below 1 or one the
    // catalogue does not allow, 7 for a name the configuration or the files refuse (a group
    // member list refuses ',' and a leading blank), 0 for a taken name, 6 when no user id is
    // free.  `encrypted`: the password is a finished crypt hash, stored as given.  `mustChange`:
    // the password must be changed at the next login.  The account is listed in exactly the
    // groups its profile grants (its roles' groups and the groups those grant; a stale entry of
    // its name elsewhere goes), and the failed-login count of its uid is reset.  Logs
    // "User account - created <name>".
    static User createUser(const std::string& name, const std::string& password, bool encrypted, int profileId,
                           bool active, bool mustChange, const bool* skipPasswordCheck);
    static User createUser(const std::string& name, const std::string& password, int profileId, bool active,
                           bool mustChange, const bool* skipPasswordCheck);
    static User createUserWithEncryptedPassword(const std::string& name, const std::string& password, int profileId,
                                                bool active, bool mustChange, const bool* skipPasswordCheck);
    // Renames, moves to another profile, enables or disables, sets the password and the
    // must-change day of this stored account.  Rights UpdateUser, or UpdatePassword when only
    // the password and the must-change day are given.  The main account (getBaseUid()) cannot
    // be disabled (UMException 4).  Enabling or a new password also resets the failed-login
    // count; a rename or a profile change makes the name-service cache reload.  A rename renames
    // the account in every group member and administrator list; a profile change lists it in
    // exactly the catalogue's groups the new profile grants, and leaves groups the catalogue
    // does not know as they were.  One audit event per changed aspect; the object is refreshed
    // from the files.
    void updateUser(const std::string* newName, const int* profileId, const bool* active, const std::string* password,
                    bool encrypted, const bool* mustChange, const bool* skipPasswordCheck);
    void updateUser(const std::string* newName, const int* profileId, const bool* active, const std::string* password,
                    const bool* mustChange, const bool* skipPasswordCheck);
    void updateUserWithEncryptedPassword(const std::string* newName, const int* profileId, const bool* active,
                                         const std::string* password, const bool* mustChange,
                                         const bool* skipPasswordCheck);
    // Rights RemoveUser; neither the main account (UMException 3) nor the account running the
    // process (8).  Its name leaves every group member and administrator list and the
    // failed-login count of its uid is reset.  Logs "User account - deleted".
    void removeUser();

    // The holder's own change through the web-login PAM service, which verifies `oldPassword`
    // and judges and stores `newPassword`.  No rights check of its own.  The current password
    // is checked as a web login checks it first: a wrong one counts as a failed login (and may
    // lock the account), and a locked account is refused (UpdatePasswordException 18) until
    // it is unlocked.
    void updatePassword(std::string& oldPassword, std::string& newPassword, const std::string& ip);
    // The same for the account `name` (looked up first, with the ReadUser rights check).
    static void updateAnyUserPassword(const std::string& name, const std::string& oldPassword,
                                      const std::string& newPassword, const std::string& ip);
    // A reset: writes the hash of `newPassword` into the shadow entry of `name`, resets its
    // failed-login count, and logs the reset under this object's name.  Rights UpdatePassword
    // with this object and with the account `name` as target.  `checkPassword` true: the password
    // rules judge it first.
    void updateAnyUserPassword(const std::string& name, const std::string& newPassword, bool mustChange,
                               const std::string& ip, bool checkPassword);
    // Throws the password-rules service's refusal; the PAM user is the log context's user.
    void checkPasswordStrenght(const std::string& password);
    // Whether `password` is the current password of the account running the process; a wrong
    // one is logged here.  Root is refused (authnz::AuthNZException 0).
    static bool checkCurrentUserPasswd(const std::string& password);
    // Resets the failed-login count with the tally tool, run as root after the UpdateUser
    // rights check; logs "User account - unlocked" when the account was locked.
    void unLock();

    // Audit events, one log call per changed aspect of the records.
    void logPwdEvent(LookUpdatePasswd& look);
    void logShadowdEvent(LookUpdateShadow& look);
    void logUserLockEvent(LookLockUpdate& look);

private:
    // The listing builds each object from the entry it read, without a second lookup.
    friend std::vector<User> utilities::getUserList();

    // The failed-login count reset with the tally tool (as root), the outcome in `look`; for the
    // operations that have checked the caller and confirmed this account under the
    // password-file lock already.
    void resetFailedLogins(LookLockUpdate& look);

    // `uid` and `name` with the lookup defaults: gid unknown, flags (inactive, password expired,
    // locked, account expired), the placeholder profile, no group cache.
    User(unsigned int uid, std::string name);

    unsigned int m_uid;
    unsigned int m_gid;
    std::string m_userName;
    bool m_isActive;
    bool m_isPasswordExpired;
    bool m_isLocked;
    bool m_isAccountExpired;
    UmProfile m_profile;
    // The group cache: filled on first use by a const operation, malloc'ed, owned.
    mutable int m_nbGroups;
    mutable gid_t* m_groups;
};

// "User Name:[name] uid:[uid]", a line end, then the profile.
TVC_UM_EXPORT std::ostream& operator<<(std::ostream& out, User& user);

}  // namespace usermanagement
