// The migration of the sample device to its next software version (sample-device.txt): the
// files it leaves, the logins and audit events after it, and a run killed at each step.
#include <gtest/gtest.h>

#include <pwd.h>
#include <shadow.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <authnz/WebPam.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/Migration.h>
#include <usermanagement/SystemPermission.h>

#include "sampledevice/SampleDevice.h"
#include "support/DeviceFixture.h"
#include "support/RecordingLogger.h"

using tvc::sample::sampleDevice;
using tvc::test::readFile;

namespace {

using Migration = tvc::test::DeviceTest<tvc::sample::SampleDefinition>;

std::string accountFiles() { return readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group"); }

TEST_F(Migration, CarriesTheManagedAccountsOverToTheNextVersion) {
    // A device whose shadow file lists admin last, unlike its passwd file.
    tvc::test::removeEntry("/etc/shadow", "admin");
    tvc::test::addLines("/etc/shadow", "admin:" + sampleDevice().account("admin").shadow + ":20454:0:99999:7:::\n");
    tvc::test::RecordingLogger logger;
    usermanagement::filesSystemMigration();

    // Passwd in the new order (the version's system accounts, then the managed ones), each with
    // its primary group, shell and shadow field; tech lost its profile.
    struct Row {
        const char* name;
        unsigned int gid;
        bool disabled;
    };
    const std::vector<Row> rows = {{"root", 0, false},         {"www-data", 33, false},   {"sysdaemon", 998, false},
                                   {"svc-web", 100, false},    {"plainuser", 100, false}, {"svc-backup", 100, false},
                                   {"nobody", 65534, false},   {"sysupdate", 997, false}, {"admin", 10000, false},
                                   {"operator", 10001, false}, {"viewer", 10002, false},  {"tech", 10002, true},
                                   {"guest", 10002, false}};
    std::string names;
    for (const std::string& line : tvc::sample::detail::split(readFile("/etc/passwd"), '\n'))
        if (!line.empty()) names += line.substr(0, line.find(':')) + " ";
    std::string expectedNames;
    for (const Row& row : rows) {
        expectedNames += std::string(row.name) + " ";
        const auto& described = row.gid == 997 ? sampleDevice().nextAccounts.at(0) : sampleDevice().account(row.name);
        const passwd* account = getpwnam(row.name);
        ASSERT_NE(account, nullptr) << row.name;
        EXPECT_EQ(account->pw_uid, described.uid) << row.name;
        EXPECT_EQ(account->pw_gid, row.gid) << row.name;
        EXPECT_EQ(std::string(account->pw_shell), described.shell) << row.name;
        const spwd* shadow = getspnam(row.name);
        ASSERT_NE(shadow, nullptr) << row.name;
        EXPECT_EQ(std::string(shadow->sp_pwdp), (row.disabled ? "!!" : "") + described.shadow) << row.name;
    }
    EXPECT_EQ(names, expectedNames);
    EXPECT_EQ(readFile("/etc/group"), readFile("/etc/group.orig"));
    EXPECT_EQ(catalogue.getProfiles(true).count(sampleDevice().profiles.at(3).id), 0u) << "maintainers";
    // The migration writes passwd, shadow and group; gshadow is not among its files.
    EXPECT_EQ(std::system("/usr/sbin/pwck -r >/dev/null 2>&1"), 0);
    EXPECT_EQ(std::system("/usr/sbin/grpck -r /etc/group >/dev/null 2>&1"), 0);

    std::string audit;
    for (const auto& m : logger.messages) audit += m.text + "\n";
    EXPECT_EQ(audit,
              "User account - profile of <tech> changed from <nogroup> to <viewers>\n"
              "User account - deactivated <tech>\n");

    // The carried-over passwords still log in; the disabled account does not.
    for (const char* name : {"admin", "operator", "viewer", "guest", "tech"}) {
        std::unique_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM(name, "192.0.2.7", authnz::WebPam::WebLogin));
        bool accepted = true;
        try {
            pam->pamAuthentication(sampleDevice().account(name).password.c_str());
        } catch (const std::exception&) {
            accepted = false;
        }
        EXPECT_EQ(accepted, std::string(name) != "tech") << name;
    }
}

// The migration as filesSystemMigration() runs it, in a child process that stops at `step`
// (after the group file, after passwd and shadow, after half of the profiles), reports
// "held <step>" and is killed there.
void killMigrationAt(const std::string& step) {
    using namespace usermanagement;
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const auto held = [&](const std::string& reached) {
            const std::string line = "held " + reached + "\n";
            if (reached == step && write(out[1], line.data(), line.size()) > 0)
                for (;;) pause();
        };
        try {
            UserDefinition& d = UserDefinition::GetUserDefinition();
            std::map<std::string, unsigned int> userGids;
            {
                SystemPermission permission;
                permission.setRealPermissions();
                {
                    FileSystemUpdate group(d.getGroupFilePath(), d.getGroupTmpFilePath(), "/etc/group.orig", false);
                    group.prepareSystemFiles();
                    updateGroupFile(group);
                    group.finalyzeSystemFiles();
                }
                held("group");
                FileSystemUpdate passwords(d.getPasswordFilePath(), d.getPasswordTmpFilePath(), "/etc/passwd.orig",
                                           true);
                FileSystemUpdate shadows(d.getShadowFilePath(), d.getShadowTmpFilePath(), "/etc/shadow.orig", false);
                passwords.prepareSystemFiles();
                shadows.prepareSystemFiles();
                userGids = updatePasswordFile(passwords, shadows);
                finalyzeSystemFilesTogether(passwords, shadows);
                held("passwd");
            }
            updateProfiles({userGids.begin(), std::next(userGids.begin(), userGids.size() / 2)});
            held("profiles");
        } catch (...) {
        }
        _exit(1);
    }
    close(out[1]);
    char line[64] = {};
    const bool reached = read(out[0], line, sizeof line - 1) > 0;
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    close(out[0]);
    EXPECT_TRUE(reached && std::string(line) == "held " + step + "\n") << step << ": " << line;
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << step;
}

TEST_F(Migration, RunAgainAfterAKillAtEachStepEndsAsAWholeRun) {
    usermanagement::filesSystemMigration();
    const std::string whole = accountFiles();
    for (const std::string step : {"group", "passwd", "profiles"}) {
        tvc::test::restoreSampleDevice();
        killMigrationAt(step);
        for (const auto& account : sampleDevice().accounts) EXPECT_NE(getpwnam(account.name.c_str()), nullptr) << step;
        usermanagement::filesSystemMigration();
        EXPECT_EQ(accountFiles(), whole) << step;
    }
}

}  // namespace
