// The device configuration file: the profile catalogue (profiles, the roles they hold, the
// groups each role grants) and the settings in which the device differs from the library's
// built-in defaults.  A host reads it at start-up with installDeviceConfiguration; nothing of a
// device needs compiling in.
//
//     # a comment: '#' as the first character that is not blank
//     [settings]
//     dbLockCount = 3
//     maxUser = 10
//     # blanks around a value go, unless the value is quoted (no quote inside)
//     updateFileScript = "sudo /usr/sbin/tvc-install "
//
//     [role role-network-configure]
//     grants = net-admin
//
//     [profile operators]
//     id = 1
//     roles = role-user-configure-self, role-network-configure
//     shell = /bin/sh
//
// The settings carry the names `umctl settings` prints (userShell is the shell of a profile
// without a shell of its own).  A section [role NAME] may be empty; a profile needs an id.
// Lists are comma-separated; role, profile and group names are names the group file can hold.
// Anything the reader does not know or cannot use is refused, with the file and line: an
// unknown section or key, a key, role, profile or profile id given twice, a profile naming a
// role the file lacks, a number that is not one or is out of its range, a flag other than
// true/false, a line over 1024 bytes, a NUL or other control character, text that is not UTF-8,
// a path with characters other than letters, digits and / . _ + -, an update command that does
// not end with a blank.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UserDefinition.h>

namespace tvc::deviceconfig {

constexpr const char* kDefaultPath = "/etc/tvc-usermanagement/device.conf";

// what(): "FILE:LINE: reason", or "FILE: reason" for a problem of the whole file.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Role {
    std::string name;
    std::vector<std::string> grants;
};

struct Profile {
    std::string name;
    int id = 0;
    std::vector<std::string> roles;
    std::string shell;  // empty: the userShell setting, or the library's
};

// A setting left out is the library's default.
struct Settings {
    std::optional<long long> maxUser, baseUid, dbLockCount, passwordMaxAge, passwordMinAge, passwordInactivityDays,
        dbDelayWrongCredential, dbPasswordMaxLen;
    std::optional<bool> passwordAgeExemptsBaseUser, rootProfile;
    std::optional<std::string> userShell, userHome, userGecos, webPam, passwordPam, tallyFilePath, userManagerRole,
        selfAccountRole, passwordFilePath, passwordTmpFilePath, shadowFilePath, shadowTmpFilePath, groupFilePath,
        groupTmpFilePath, updateFileScript;
};

struct DeviceConfiguration {
    Settings settings;
    std::vector<Role> roles;        // in file order
    std::vector<Profile> profiles;  // in file order
};

// The text of a file named `name` (for the messages), checked whole.
DeviceConfiguration parseDeviceConfiguration(const std::string& text, const std::string& name);
// The file at `path`: when the process runs as root, its ownership and mode first (see the
// definition), then its text.
DeviceConfiguration readDeviceConfiguration(const std::string& path);

// The settings of a configuration, the library's defaults for the rest.  Never changes after
// construction, so any thread may ask it anything.
class ConfiguredDefinition : public usermanagement::UserDefinition {
public:
    explicit ConfiguredDefinition(std::shared_ptr<const DeviceConfiguration> configuration);

    unsigned int getMaxUser() override;
    unsigned int getBaseUid() override;
    const char* getUserShell(unsigned int gid) override;
    const char* getUserHome() override;
    const char* getUserGecos() override;
    std::string getWebPam() override;
    std::string getPasswordPam() override;
    std::string getTallyFilePath() override;
    std::string getUserManagerRole() override;
    std::string getSelfAccountRole() override;
    void getDBLockCount(int& count) override;
    void getDBPasswordExpirationAge(int& maxAge, int& minAge, int& thirdAge, bool& exemptBaseUser) override;
    unsigned int getDBDelayWrongCredential() override;
    unsigned int getDBPasswordMaxLen() override;
    const char* getPasswordFilePath() override;
    const char* getPasswordTmpFilePath() override;
    const char* getShadowFilePath() override;
    const char* getShadowTmpFilePath() override;
    const char* getGroupFilePath() override;
    const char* getGroupTmpFilePath() override;
    bool hasRootProfile() override;
    const char* getUpdateFileScript() override;

private:
    std::shared_ptr<const DeviceConfiguration> m_configuration;
};

// The catalogue of a configuration.  A profile whose group the live group database lacks is
// left out, so that a rebuild after the migration offers what the new version's groups allow.
class ConfiguredCatalogue : public usermanagement::ProfileDefinition {
public:
    explicit ConfiguredCatalogue(std::shared_ptr<const DeviceConfiguration> configuration);
    void buildProfiles() override;

private:
    std::shared_ptr<const DeviceConfiguration> m_configuration;
};

// Reads the file, checks it whole, installs its ConfiguredDefinition and ConfiguredCatalogue for
// the process (objects live until exit).  Throws ConfigError before anything is installed.
// `required` false: a missing file at that path means built-in defaults, nothing installed.
void installDeviceConfiguration(const std::string& path, bool required);

}  // namespace tvc::deviceconfig
