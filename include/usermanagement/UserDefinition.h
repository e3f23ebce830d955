// The library's configuration provider.  Every setting is a virtual operation with a built-in
// default; a host derives from UserDefinition, overrides what it needs and installs its object
// once at start-up with setUserDefinition.  The library reads every setting through
// GetUserDefinition() at the moment it needs it, so nothing is cached.
//
// The order of the virtual operations is part of the binary interface: hosts compiled against
// the device's headers override them by slot.
#pragma once

#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {

class User;

class TVC_UM_EXPORT UserDefinition {
public:
    // What an account operation asks the rights check for.
    enum Action : int {
        CreateUser = 0,
        RemoveUser = 1,
        ReadUser = 2,
        ManageUsers = 3,
        UpdateUser = 4,
        UpdatePassword = 5,
    };

    UserDefinition() = default;
    UserDefinition(const UserDefinition&) = default;
    UserDefinition& operator=(const UserDefinition&) = default;

    // Number of managed user ids, starting at getBaseUid().
    virtual unsigned int getMaxUser();
    // First managed user id; also the id of the main account.
    virtual unsigned int getBaseUid();
    // Whether `name` may name an account; `uid` is the account being renamed or -1 for a new one.
    virtual bool isAValidUserName(const std::string& name, unsigned int uid);
    // Login shell of an account whose profile (primary group) is `gid`.
    virtual const char* getUserShell(unsigned int gid);
    virtual const char* getUserHome();
    virtual const char* getUserGecos();
    // PAM service of web logins.
    virtual std::string getWebPam();
    // PAM service of password rules and password changes.
    virtual std::string getPasswordPam();
    virtual std::string getTallyFilePath();
    virtual std::string getUserManagerRole();
    virtual std::string getSelfAccountRole();
    // Returns when `action` on `target` (may be null) is allowed for the calling process's
    // account; throws authnz::AuthorizationException (302) otherwise.
    virtual void checkRight(Action action, User* target);
    // Failed-login limit; the caller presets -1 (never locked).  The default writes -1.
    virtual void getDBLockCount(int& count);
    // Password ageing (max age, min age, third value, base-user exemption); the caller presets
    // the day values to -1 and the default writes nothing.  `thirdAge` is the inactivity period
    // when the policy is applied to every managed account, and the account-expiration day
    // when a new account is created with it.
    virtual void getDBPasswordExpirationAge(int& maxAge, int& minAge, int& thirdAge,
                                            bool& exemptBaseUser);
    // Seconds to wait before reporting an unknown user name or id.
    virtual unsigned int getDBDelayWrongCredential();
    virtual unsigned int getDBPasswordMaxLen();
    virtual const char* getPasswordFilePath();
    virtual const char* getPasswordTmpFilePath();
    virtual const char* getShadowFilePath();
    virtual const char* getShadowTmpFilePath();
    virtual const char* getGroupFilePath();
    virtual const char* getGroupTmpFilePath();
    // True: the process runs as root, switches thread identities and renames files into place.
    // False: no identity is switched and files are installed by getUpdateFileScript().
    virtual bool hasRootProfile();
    // Head of the command line that installs a file when not root; the temporary path and
    // the live path follow it.  The default "false " keeps its trailing blank.
    virtual const char* getUpdateFileScript();
    virtual ~UserDefinition();

    // Installs `definition` (the object this is called on plays no other part).  Only the
    // address is kept: the provider must outlive every later use of the library.
    void setUserDefinition(UserDefinition& definition);
    // The installed provider; UMException 40 "No User Database" when none is installed.
    static UserDefinition& GetUserDefinition();

    static UserDefinition* m_ptrDefaultUserDefinition;
};

}  // namespace usermanagement
