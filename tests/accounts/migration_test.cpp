// The migration of the sample device to its next software version (sample-device.txt): the
// files it leaves, the logins and audit events after it, what it refuses or skips, and a run
// killed at each installation of a file.
#include <gtest/gtest.h>

#include <pwd.h>
#include <shadow.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <authnz/WebPam.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/Migration.h>

#include "files/FilesTestSupport.h"
#include "sampledevice/SampleDevice.h"
#include "support/AccountSupport.h"
#include "support/DeviceFixture.h"
#include "support/RecordingLogger.h"

using tvc::sample::sampleDevice;
using tvc::test::readFile;

namespace {

using Migration = tvc::test::DeviceTest<tvc::sample::SampleDefinition>;

std::string accountFiles() {
    return readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group") + readFile("/etc/gshadow");
}

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
    EXPECT_EQ(std::system("/usr/sbin/pwck -r >/dev/null 2>&1 && /usr/sbin/grpck -r >/dev/null 2>&1"), 0);
    // gshadow, where newgrp reads member lists, lists the new version's groups with their members.
    std::string groups, gshadowGroups;
    for (const std::string& line : tvc::test::lines("/etc/group"))
        groups += tvc::test::fields(line)[0] + ":" + tvc::test::fields(line)[3] + "\n";
    for (const std::string& line : tvc::test::lines("/etc/gshadow"))
        gshadowGroups += tvc::test::fields(line)[0] + ":" + tvc::test::fields(line)[3] + "\n";
    EXPECT_EQ(gshadowGroups, groups);

    std::string audit;
    for (const auto& m : logger.messages) audit += m.text + "\n";
    EXPECT_EQ(audit,
              "User account - deactivated <tech>\n"
              "User account - profile of <tech> changed from <nogroup> to <viewers>\n");

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
         "7 filesSystemMigration (rename the managed account of uid 10005 first) error, bad user name",
         ""},
        {"", "",
         [] {
             FileSystemUpdate held("/etc/passwd", "/etc/tmppassd", true);
             usermanagement::filesSystemMigration();
         },
         "11 FileSystemUpdate:password files locked (/etc/group)", ""},
        {"", "", [] { usermanagement::updateProfiles({{"gone", 10002}}); }, "ok",
         "User account - <gone> no longer exists, its profile is not migrated\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.outcome);
        tvc::test::restoreSampleDevice();
        tvc::test::addLines("/etc/passwd", row.passwd);
        tvc::test::addLines("/etc/shadow", row.shadow);
        const std::string before = accountFiles();
        tvc::test::RecordingLogger logger;
        EXPECT_EQ(tvc::test::outcome(row.call), row.outcome);
        std::string events;
        for (const auto& m : logger.messages) events += m.messageId == 13 ? m.text + "\n" : "";
        EXPECT_EQ(events, row.events);
        if (row.outcome != "ok" || !row.events.empty()) {
            EXPECT_EQ(accountFiles(), before);
        }
        EXPECT_EQ(readFile("/etc/passwd").find("ghost:"), readFile("/etc/shadow").find("ghost:"));
    }
}

// The real migration in the driver process, killed at each installation of a file (the Nth
// rename) and run again: files and account states as after a run that was never stopped.
TEST_F(Migration, KilledAtAnyInstallAndRunAgainEndsAsAWholeRun) {
#ifndef TVC_FIU_PRELOAD
    GTEST_SKIP() << "libfiu (packages libfiu-dev and fiu-utils) not installed";
#else
    const std::string driver = "LD_PRELOAD='" TVC_FIU_PRELOAD "' " TVC_ACCOUNTS_DRIVER;
    // The run first, then the files it left (the operands of + have no order).
    const auto migrated = [&] {
        const std::string output = tvc::test::run(driver + " migrate 2>&1").output;
        return output + accountFiles();
    };
    const std::string whole = migrated();
    EXPECT_NE(whole.find("tech viewers off"), std::string::npos) << whole;
    int kills = 0;
    for (;; ++kills) {
        tvc::test::restoreSampleDevice();
        const std::string kill = " --kill posix/io/dir/rename " + std::to_string(kills + 1);
        if (tvc::test::run(driver + kill + " migrate 2>&1").status != 128 + SIGKILL) break;
        EXPECT_EQ(migrated(), whole) << kill;
    }
    // group, gshadow, passwd, shadow; four for each account's profile update (passwd, shadow, and
    // the member lists of group and gshadow) and two for tech's disabling.
    EXPECT_EQ(kills, 26);
    tvc::test::Snapshot({}, {"/etc/tmpgroup", "/etc/tmpgshadow", "/etc/tmppassd", "/etc/tmpshadow", "/etc/tmppassd.old"})
        .expectUnchanged();
#endif
}

}  // namespace
