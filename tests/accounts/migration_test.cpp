// The migration of the sample device to its next software version (sample-device.txt): the
// files it leaves, the logins and audit events after it, and what it refuses or skips (a run
// killed half-way: faults_test).
#include <pwd.h>
#include <shadow.h>

#include <cstdlib>
#include <memory>
#include <tuple>

#include <authnz/WebPam.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/Migration.h>

#include "sampledevice/SampleDevice.h"
#include "support/AccountSupport.h"

using tvc::sample::sampleDevice;
using namespace tvc::test;

namespace {

using Migration = tvc::test::DeviceTest<tvc::sample::SampleDefinition>;

std::string accountFiles() {
    return readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group") + readFile("/etc/gshadow");
}

TEST_F(Migration, CarriesTheManagedAccountsOverToTheNextVersion) {
    // A device whose shadow file lists admin last, unlike its passwd file.
    removeEntry("/etc/shadow", "admin");
    addLines("/etc/shadow", "admin:" + sampleDevice().account("admin").shadow + ":20454:0:99999:7:::\n");
    RecordingLogger logger;
    usermanagement::filesSystemMigration();

    // Passwd in the new order (the version's system accounts, then the managed ones), each with
    // its primary group, shell and shadow field; tech lost its profile and is disabled.
    const std::pair<const char*, unsigned int> rows[] = {
        {"root", 0},         {"www-data", 33},  {"sysdaemon", 998}, {"svc-web", 100}, {"plainuser", 100},
        {"svc-backup", 100}, {"nobody", 65534}, {"sysupdate", 997}, {"admin", 10000}, {"operator", 10001},
        {"viewer", 10002},   {"tech", 10002},   {"guest", 10002}};
    std::string names, expectedNames;
    for (const std::string& line : lines("/etc/passwd")) names += fields(line)[0] + " ";
    for (const auto& [name, gid] : rows) {
        expectedNames += std::string(name) + " ";
        const auto& described = gid == 997 ? sampleDevice().nextAccounts.at(0) : sampleDevice().account(name);
        const passwd* account = getpwnam(name);
        const spwd* shadow = getspnam(name);
        ASSERT_TRUE(account && shadow) << name;
        EXPECT_EQ(std::make_tuple(account->pw_uid, account->pw_gid, std::string(account->pw_shell),
                                  std::string(shadow->sp_pwdp)),
                  std::make_tuple(described.uid, gid, described.shell,
                                  (name == std::string("tech") ? "!!" : "") + described.shadow))
            << name;
    }
    EXPECT_EQ(names, expectedNames);
    EXPECT_EQ(readFile("/etc/group"), readFile("/etc/group.orig"));
    EXPECT_EQ(catalogue.getProfiles(true).count(sampleDevice().profiles.at(3).id), 0u) << "maintainers";
    EXPECT_EQ(std::system("/usr/sbin/pwck -r >/dev/null 2>&1 && /usr/sbin/grpck -r >/dev/null 2>&1"), 0);
    // gshadow, where newgrp reads member lists, lists the new version's groups with their members.
    const auto members = [](const char* path) {
        std::string text;
        for (const std::string& line : lines(path)) text += fields(line)[0] + ":" + fields(line)[3] + "\n";
        return text;
    };
    EXPECT_EQ(members("/etc/gshadow"), members("/etc/group"));

    std::string audit;
    for (const auto& m : logger.messages) audit += m.text + "\n";
    EXPECT_EQ(audit,
              "User account - deactivated <tech>\n"
              "User account - profile of <tech> changed from <nogroup> to <viewers>\n");

    // The carried-over passwords still log in; the disabled account does not.
    for (const char* name : {"admin", "operator", "viewer", "guest", "tech"}) {
        std::unique_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM(name, "192.0.2.7", authnz::WebPam::WebLogin));
        const std::string answer =
            outcome([&] { pam->pamAuthentication(sampleDevice().account(name).password.c_str()); });
        EXPECT_EQ(answer == "ok", std::string(name) != "tech") << name << ": " << answer;
    }
}

// Devices the migration meets: its answer, its skip events, and the files after it (a refusal
// leaves passwd, shadow and group as they were; every account in both files or in neither).
TEST_F(Migration, RefusesBeforeWritingAndSkipsWhatIsGone) {
    using usermanagement::FileSystemUpdate;
    const std::string longName(33, 'n');
    const struct {
        std::string passwd, shadow;  // lines added to the sample device
        std::function<void()> call;
        std::string outcome, events;
    } rows[] = {
        {"ghost:x:20000:10002::/home/admin:/bin/sh\n", "ghost:!!:20454:0:99999:7:::\n",
         usermanagement::filesSystemMigration, "ok", ""},
        {longName + ":x:10005:10002::/home/admin:/bin/sh\n", longName + ":!!:20454:0:99999:7:::\n",
         usermanagement::filesSystemMigration,
         "7 filesSystemMigration (rename the managed account of uid 10005 first) error, bad user name", ""},
        {"", "",
         [] {
             FileSystemUpdate held("/etc/passwd", "/etc/tmppassd", true);
             usermanagement::filesSystemMigration();
         },
         "11 FileSystemUpdate:password files locked (/etc/group)", ""},
        {"", "",
         [] {
             usermanagement::updateProfiles({{"gone", 10002}});
         },
         "ok", "User account - <gone> no longer exists, its profile is not migrated\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.outcome);
        restoreSampleDevice();
        addLines("/etc/passwd", row.passwd);
        addLines("/etc/shadow", row.shadow);
        const std::string before = accountFiles();
        RecordingLogger logger;
        EXPECT_EQ(outcome(row.call), row.outcome);
        std::string events;
        for (const auto& m : logger.messages) events += m.messageId == 13 ? m.text + "\n" : "";
        EXPECT_EQ(events, row.events);
        if (row.outcome != "ok" || !row.events.empty()) {
            EXPECT_EQ(accountFiles(), before);
        }
        EXPECT_EQ(readFile("/etc/passwd").find("ghost:"), readFile("/etc/shadow").find("ghost:"));
    }
}

}  // namespace
