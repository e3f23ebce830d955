// The device configuration reader: what it refuses (one row per malformed file, with the message
// it must give), what a good file answers through the installed settings and catalogue, and the
// ownership and mode a file read by root must have.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UserDefinition.h>

#include "deviceconfig/DeviceConfig.h"
#include "sampledevice/SampleConfiguration.h"
#include "support/DeviceFixture.h"

using namespace tvc::deviceconfig;

namespace {

// The message a text is refused with, or "ok".
std::string refusal(const std::string& text) try {
    parseDeviceConfiguration(text, "device.conf");
    return "ok";
} catch (const ConfigError& e) {
    return e.what();
}

TEST(DeviceConfigText, RefusesWhatItCannotUseNamingTheLine) {
    const struct {
        std::string text, expected;
    } rows[] = {
        {"[colours]\n", "device.conf:1: unknown section: [colours]"},
        {"[settings\n", "device.conf:1: unterminated section header"},
        {"maxUser = 3\n", "device.conf:1: key outside a section: maxUser"},
        {"[settings]\nmaxUser 3\n", "device.conf:2: expected [SECTION] or KEY = VALUE"},
        {"[settings]\nmaxUsers = 3\n", "device.conf:2: unknown setting: maxUsers"},
        {"[role r]\ncolour = red\n", "device.conf:2: unknown key in a role: colour"},
        {"[profile p]\nid = 1\nshell = sh\n", "device.conf:3: not an absolute path: sh"},
        {"[profile p]\nid = 1\nshell = /bin/sh:x\n",
         "device.conf:3: a path may hold only letters, digits and / . _ + -: /bin/sh:x"},
        {"[settings]\nuserHome = /home/a b\n",
         "device.conf:2: a path may hold only letters, digits and / . _ + -: /home/a b"},
        {"[settings]\ngroupFilePath = /etc/group;id\n",
         "device.conf:2: a path may hold only letters, digits and / . _ + -: /etc/group;id"},
        {"[settings]\nupdateFileScript = sudo /usr/sbin/tvc-install\n",
         "device.conf:2: the update command must end with a blank (quote the value): sudo /usr/sbin/tvc-install"},
        {"[settings]\nmaxUser = 3\n\nmaxUser = 4\n", "device.conf:4: duplicate key maxUser (line 2)"},
        {"[settings]\n[settings]\n", "device.conf:2: duplicate section settings (line 1)"},
        {"[role a]\n[role a]\n", "device.conf:2: duplicate role a (line 1)"},
        {"[profile p]\nid = 1\n[profile p]\n", "device.conf:3: duplicate profile p (line 1)"},
        {"[profile p]\nid = 1\n[profile q]\nid = 1\n", "device.conf:4: duplicate profile id 1 (line 2)"},
        {"[profile p]\nroles =\n[role r]\n", "device.conf:1: profile p has no id"},
        {"[profile p]\nid = 1\nroles = r, ghost\n[role r]\n", "device.conf:3: no role ghost"},
        {"[role r]\ngrants = a, a\n", "device.conf:2: duplicate granted group a"},
        {"[role r]\ngrants = a,,b\n", "device.conf:2: not a granted group name: ''"},
        {"[settings]\nmaxUser = ten\n", "device.conf:2: not a whole number: ten"},
        {"[settings]\nmaxUser = 1e3\n", "device.conf:2: not a whole number: 1e3"},
        {"[settings]\nmaxUser = 0\n", "device.conf:2: 0 is out of range 1..60000"},
        {"[settings]\ndbLockCount = -2\n", "device.conf:2: -2 is out of range -1..1000"},
        {"[profile p]\nid = 9999999999\n", "device.conf:2: 9999999999 is out of range -2147483648..2147483647"},
        {"[settings]\nrootProfile = yes\n", "device.conf:2: not true or false: yes"},
        {"[role bad:name]\n", "device.conf:1: not a group name: bad:name"},
        {"[profile -p]\n", "device.conf:1: not a group name: -p"},
        {"[role r]\ngrants = net admin\n", "device.conf:2: not a granted group name: 'net admin'"},
        {"[settings]\nuserManagerRole = r\xc3\xb4le\n", "device.conf:2: not a group name: r\xc3\xb4le"},
        {"[settings]\nwebPam = ../login\n", "device.conf:2: not a PAM service name: ../login"},
        {"[settings]\nuserGecos = a:b\n", "device.conf:2: ':' or ',' in the gecos field: a:b"},
        {"[settings]\nwebPam =\n", "device.conf:2: empty value"},
        {"[settings]\nupdateFileScript = \"a\"b\"\n", "device.conf:2: a quote inside a quoted value"},
        {"[settings]\nuserGecos = \"a\n", "device.conf:2: a quote that does not enclose the whole value"},
        {std::string("[settings]\n# a\0b\n", 17), "device.conf:2: NUL byte"},
        {"# caf\xe9\n", "device.conf:1: not valid UTF-8 text"},
        {"[settings]\r\n", "device.conf:1: control character"},
        {"\n#" + std::string(1024, 'x') + "\n", "device.conf:2: line longer than 1024 bytes"},
        {std::string(256 * 1024 + 1, '\n'), "device.conf: larger than 262144 bytes"},
    };
    for (const auto& row : rows) EXPECT_EQ(refusal(row.text), row.expected) << row.text.substr(0, 60);
}

// Every setting as the library reads it.
std::string answers(usermanagement::UserDefinition& d) {
    int lockCount = -1, maxAge = -1, minAge = -1, third = -1;
    bool exempt = false;
    d.getDBLockCount(lockCount);
    d.getDBPasswordExpirationAge(maxAge, minAge, third, exempt);
    return std::to_string(d.getMaxUser()) + " " + std::to_string(d.getBaseUid()) + " " + d.getUserShell(10001) + " " +
           d.getUserShell(10002) + " " + d.getUserHome() + " " + d.getUserGecos() + " " + d.getWebPam() + " " +
           d.getPasswordPam() + " " + d.getTallyFilePath() + " " + d.getUserManagerRole() + " " +
           d.getSelfAccountRole() + " " + std::to_string(lockCount) + " " + std::to_string(maxAge) + " " +
           std::to_string(minAge) + " " + std::to_string(third) + " " + (exempt ? "exempt" : "-") + " " +
           std::to_string(d.getDBDelayWrongCredential()) + " " + std::to_string(d.getDBPasswordMaxLen()) + " " +
           d.getPasswordFilePath() + " " + d.getPasswordTmpFilePath() + " " + d.getShadowFilePath() + " " +
           d.getShadowTmpFilePath() + " " + d.getGroupFilePath() + " " + d.getGroupTmpFilePath() + " " +
           (d.hasRootProfile() ? "root" : "-") + " [" + d.getUpdateFileScript() + "]";
}

class DeviceConfigTest : public tvc::test::ProvidersRestored {
protected:
    void TearDown() override {
        ProvidersRestored::TearDown();
        if (!m_dir.empty()) tvc::test::run("rm -rf " + m_dir);
    }
    // A scratch directory of root's under /tmp (root's and sticky), holding `text` as device.conf.
    std::string scratch(const std::string& text) {
        char name[] = "/tmp/tvc-deviceconfig-XXXXXX";
        m_dir = mkdtemp(name);
        tvc::test::writeFile(m_dir + "/device.conf", text);
        return m_dir + "/device.conf";
    }
    std::string m_dir;
};

// The settings a file gives, the library's defaults for the rest: the sample device, and a
// file setting everything else.  Installed, the catalogue is the file's and leaves out a
// profile whose group is gone.
TEST_F(DeviceConfigTest, AnswersTheFilesSettingsAndBuildsItsCatalogue) {
    const std::string builtIn = answers(*usermanagement::UserDefinition::m_ptrDefaultUserDefinition);
    EXPECT_EQ(builtIn,
              "5 10000 /bin/sh /bin/sh /home/admin UI User login testpwd /var/log/tallylog role-user-manager "
              "role-user-configure-self -1 -1 -1 -1 - 10 255 /etc/passwd /etc/tmppassd /etc/shadow /etc/tmpshadow "
              "/etc/group /etc/tmpgroup root [false ]");
    tvc::sample::SampleSettings sample;
    EXPECT_EQ(answers(sample),
              "10 10000 /bin/sh /bin/sh /home/admin UI User login testpwd /var/log/tallylog role-user-manager "
              "role-user-configure-self 3 -1 -1 -1 - 10 255 /etc/passwd /etc/tmppassd /etc/shadow /etc/tmpshadow "
              "/etc/group /etc/tmpgroup root [false ]");
    const char* everything = R"(
[settings]
maxUser = 20
baseUid = 20000
userShell = /bin/bash
userHome = /home/ops
userGecos = "Operator of the line"
webPam = web
passwordPam = web-password
tallyFilePath = /var/lib/tally
userManagerRole = managers
selfAccountRole = self
dbLockCount = 5
passwordMaxAge = 90
passwordMinAge = 1
passwordInactivityDays = 30
passwordAgeExemptsBaseUser = true
dbDelayWrongCredential = 0
dbPasswordMaxLen = 64
passwordFilePath = /data/passwd
passwordTmpFilePath = /data/passwd.new
shadowFilePath = /data/shadow
shadowTmpFilePath = /data/shadow.new
groupFilePath = /data/group
groupTmpFilePath = /data/group.new
rootProfile = false
updateFileScript = "sudo /usr/sbin/tvc-install "
[profile operators]
id = 1
shell = /usr/bin/rbash
)";
    ConfiguredDefinition configured(std::make_shared<const DeviceConfiguration>(readDeviceConfiguration(scratch(everything))));
    EXPECT_EQ(answers(configured),
              "20 20000 /usr/bin/rbash /bin/bash /home/ops Operator of the line web web-password /var/lib/tally "
              "managers self 5 90 1 30 exempt 0 64 /data/passwd /data/passwd.new /data/shadow /data/shadow.new "
              "/data/group /data/group.new - [sudo /usr/sbin/tvc-install ]");

    installDeviceConfiguration(kDefaultPath, true);  // as the sandbox installs it
    auto& catalogue = usermanagement::ProfileDefinition::GetProfileDefinition();
    const auto names = [&] {
        std::string text;
        for (const auto& [id, profile] : catalogue.getProfiles(true))
            text += std::to_string(id) + ":" + profile.getName() + "/" + std::to_string(profile.getRoles().size()) + " ";
        return text;
    };
    EXPECT_EQ(answers(usermanagement::UserDefinition::GetUserDefinition()), answers(sample));
    EXPECT_EQ(names(), "-2:www-data/0 -1:root/0 0:administrators/4 1:operators/3 2:viewers/2 3:maintainers/2 ");
    tvc::test::removeEntry("/etc/group", "maintainers");
    EXPECT_EQ(names(), "-2:www-data/0 -1:root/0 0:administrators/4 1:operators/3 2:viewers/2 ");
}

// Nothing at the path: the defaults unless the file is required; a bad file installs nothing.
TEST_F(DeviceConfigTest, MissingFileMeansDefaultsUnlessRequired) {
    auto* const before = usermanagement::UserDefinition::m_ptrDefaultUserDefinition;
    const std::string path = scratch("") + ".absent";
    installDeviceConfiguration(path, false);
    EXPECT_EQ(usermanagement::UserDefinition::m_ptrDefaultUserDefinition, before);
    const auto refused = [&](bool required, const std::string& at = "") -> std::string {
        try {
            installDeviceConfiguration(at.empty() ? path : at, required);
            return "installed";
        } catch (const ConfigError& e) {
            return e.what();
        }
    };
    EXPECT_EQ(refused(true), path + ": No such file or directory");
    // Where another account could have deleted it, no file is no answer: the nearest existing
    // directory above it is walked like the file's own.
    ASSERT_EQ(tvc::test::run("chmod 0777 " + m_dir).status, 0);
    EXPECT_EQ(refused(false), path + ": " + m_dir + ": writable by accounts other than root");
    EXPECT_EQ(refused(false, m_dir + "/a/b/device.conf"),
              m_dir + "/a/b/device.conf: " + m_dir + ": writable by accounts other than root");
    ASSERT_EQ(tvc::test::run("chmod 0755 " + m_dir).status, 0);
    tvc::test::writeFile(path, "[settings]\nmaxUser = 7\n[role r]\n[profile p]\nroles = r\n");
    EXPECT_EQ(refused(false), path + ":4: profile p has no id");
    EXPECT_EQ(usermanagement::UserDefinition::m_ptrDefaultUserDefinition, before);
}

// Run as root, a file another account could have written, or put there, is refused; a
// symlink passes where its target would.
TEST_F(DeviceConfigTest, RootReadsOnlyWhatOnlyRootCanWrite) {
    ASSERT_EQ(geteuid(), 0u);
    const std::string path = scratch("[settings]\nmaxUser = 7\n");
    const std::string dir = m_dir;
    const auto outcome = [&](const std::string& read) -> std::string {
        try {
            return std::to_string(*readDeviceConfiguration(read).settings.maxUser);
        } catch (const ConfigError& e) {
            return e.what();
        }
    };
    const auto sh = [](const std::string& command) { ASSERT_EQ(tvc::test::run(command).status, 0) << command; };
    EXPECT_EQ(outcome(path), "7");
    sh("chown 10001 " + path);
    EXPECT_EQ(outcome(path), path + ": not owned by root");
    sh("chown 0 " + path + " && chmod 0664 " + path);
    EXPECT_EQ(outcome(path), path + ": writable by accounts other than root");
    sh("chmod 0646 " + path);
    EXPECT_EQ(outcome(path), path + ": writable by accounts other than root");
    sh("chmod 0644 " + path + " && chmod 0777 " + dir);
    EXPECT_EQ(outcome(path), path + ": " + dir + ": writable by accounts other than root");
    sh("chmod 0755 " + dir + " && chown 10001 " + dir);
    EXPECT_EQ(outcome(path), path + ": " + dir + ": not owned by root");
    sh("chown 0 " + dir + " && mkdir " + dir + "/open && chmod 0777 " + dir + "/open && cp -p " + path + " " + dir +
       "/open/ && ln -s device.conf " + dir + "/good && ln -s open/device.conf " + dir + "/bad");
    EXPECT_EQ(outcome(dir + "/good"), "7");
    EXPECT_EQ(outcome(dir + "/bad"), dir + "/bad: " + dir + "/open: writable by accounts other than root");
    sh("chown -h 10001 " + dir + "/good");
    EXPECT_EQ(outcome(dir + "/good"), dir + "/good: not owned by root");
    EXPECT_EQ(outcome(dir), dir + ": not a regular file");
}

}  // namespace
