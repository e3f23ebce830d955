// The migration of the sample device to its next software version (sample-device.txt): the
// files it leaves, the logins and audit events after it, what it refuses or skips.  Then account
// operations and the migration meeting failing system calls, or killed at one: the failures are
// injected into accounts_fault_driver, one call per run, through libfiu's POSIX preload library.
#include <pwd.h>
#include <shadow.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <tuple>

#include <authnz/WebPam.h>
#include <usermanagement/Migration.h>

#include "files/FilesTestSupport.h"
#include "sampledevice/SampleDevice.h"
#include "support/AccountSupport.h"

using tvc::sample::sampleDevice;
using namespace tvc::test;

namespace {

using Migration = DeviceTest<tvc::sample::SampleSettings>;

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
    EXPECT_EQ(catalogue.getProfiles(true).count(tvc::sample::sampleConfiguration()->profiles.at(3).id), 0u) << "maintainers";
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
         "7 filesSystemMigration (rename the managed account of uid 10005 first) error, bad user name",
         ""},
        // The next version brings a system account of that name.
        {"sysupdate:x:10005:10002::/home/admin:/bin/sh\n", "sysupdate:!!:20454:0:99999:7:::\n",
         usermanagement::filesSystemMigration,
         "7 filesSystemMigration (rename the managed account of uid 10005 first) error, bad user name", ""},
        {"lonely:x:10005:10002::/home/admin:/bin/sh\n", "", usermanagement::filesSystemMigration,
         "10 updatePasswordFile error, the account of uid 10005 in /etc/passwd has no entry in /etc/shadow; the "
         "files are not rewritten",
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
        restoreSampleDevice();
        addLines("/etc/passwd", row.passwd);
        addLines("/etc/shadow", row.shadow);
        const Snapshot before;
        RecordingLogger logger;
        EXPECT_EQ(outcome(row.call), row.outcome);
        std::string events;
        for (const auto& m : logger.messages) events += m.messageId == 13 ? m.text + "\n" : "";
        EXPECT_EQ(events, row.events);
        if (row.outcome != "ok" || !row.events.empty()) before.expectUnchanged();
        EXPECT_EQ(readFile("/etc/passwd").find("ghost:"), readFile("/etc/shadow").find("ghost:"));
    }
}

#ifndef TVC_FIU_PRELOAD
#define TVC_FIU_PRELOAD ""
#endif

class AccountFaults : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (std::string(TVC_FIU_PRELOAD).empty()) GTEST_SKIP() << "libfiu (libfiu-dev and fiu-utils) not installed";
    }
};

// The driver run with `args`, its error output in its output; `env` goes in front.
Result driver(const std::string& args, const std::string& env = "") {
    return run(env + "LD_PRELOAD='" TVC_FIU_PRELOAD "' " TVC_ACCOUNTS_DRIVER " " + args + " 2>&1");
}

// Whatever step fails: passwd, shadow, group and gshadow byte for byte as before, no temporary
// or kept file, the lock free, and the caller (admin, root only inside the operation) itself
// again.  When a later install fails, the files installed before it are put back.
TEST_F(AccountFaults, AFailingFileStepLeavesFilesLockAndCallerAsTheyWere) {
    const std::map<std::string, std::string> commands = {{"create", "create newbie"},
                                                         {"update", "update viewer watcher"},
                                                         {"remove", "remove guest"},
                                                         {"reset", "reset operator"}};
    const struct {
        const char* operations;
        const char* point;  // under posix/; "": none
        int nth;            // the call of `point` that fails
        const char* failure;
    } cases[] = {
        // the transaction's steps once; the entry functions' reads each
        {"create update remove reset", "", 0, ""},
        {"create", "io/oc/open", 1, "11 FileSystemUpdate:password files locked (/etc/passwd)"},  // the lock file
        {"create", "io/oc/open", 2, "13 fopen /etc/tmppassd prepareSystemFiles"},
        {"create", "io/oc/open", 3, "13 fopen /etc/passwd prepareSystemFiles"},
        {"create", "io/oc/open", 4, "13 fopen /etc/tmpshadow prepareSystemFiles"},
        {"create", "io/rw/read", 1, "10 addEntryInPasswordFile error in reading /etc/passwd"},
        {"create", "io/rw/read", 3, "10 addEntryInShadowFile error in reading /etc/shadow"},
        {"update", "io/rw/read", 1, "10 updateEntryInPasswordFile error in reading /etc/passwd"},
        {"remove", "io/rw/read", 1, "10 removeEntryInShadowFile error in reading /etc/shadow"},
        {"create", "stdio/fflush", 1, "13 fflush or fsync error of:/etc/tmppassd"},
        {"create", "io/sync/fsync", 2, "13 fflush or fsync error of:/etc/tmpshadow"},
        {"create", "io/dir/rename", 1, "13 rename error of:/etc/tmppassd to /etc/passwd 5Input/output error"},
        {"create", "io/dir/rename", 2, "13 rename error of:/etc/tmpshadow to /etc/shadow 5Input/output error"},
        {"create update remove", "io/dir/rename", 3,
         "13 rename error of:/etc/tmpgroup to /etc/group 5Input/output error"},
        {"create update remove", "io/dir/rename", 4,
         "13 rename error of:/etc/tmpgshadow to /etc/gshadow 5Input/output error"},
        {"reset", "io/rw/read", 1, "10 updateEntryInShadowFile error in reading /etc/shadow"},
        {"reset", "io/dir/rename", 1, "13 rename error of:/etc/tmpshadow to /etc/shadow 5Input/output error"},
    };
    const std::string admin = "ids 0 10000 0 0 10000 0 groups 4101 4102 4103 4104 4200 4201 10000\n";
    for (const auto& c : cases) {
        std::istringstream operations(c.operations);
        for (std::string operation; operations >> operation;) {
            SCOPED_TRACE(operation + " / " + c.point + " " + std::to_string(c.nth));
            restoreSampleDevice();
            const Snapshot before;
            const std::string fail = c.nth ? "--fail posix/" + std::string(c.point) + " " + std::to_string(c.nth) : "";
            // The result, the caller's ids before and after the operation, the lock as the driver saw it.
            EXPECT_EQ(driver(fail + " " + commands.at(operation)).output,
                      (c.nth ? "error " + std::string(c.failure) : "ok") + "\n" + admin + admin + "lock free\n");
            (c.nth ? before : Snapshot(std::vector<std::string>{})).expectUnchanged();
        }
    }
}

// The name-service cache is told to reload after the change is installed.  When even its
// command cannot start, the change stays made, and its events are in the audit trail already.
TEST_F(AccountFaults, AReloadThatCannotStartLeavesTheInstalledChangeAudited) {
    const std::string output = driver("--fail posix/proc/fork 1 update viewer watcher", "TVC_DRIVER_EVENTS=1 ").output;
    EXPECT_EQ(output.substr(0, output.find('\n')),
              "error 13 updateUser: the change is made, but the name-service cache reload failed: popen() failed!");
    EXPECT_EQ(output.substr(output.find("lock free\n") + 10),
              "event User account - name changed from <viewer> to <watcher>\n"
              "event User account - profile of <watcher> changed from <viewers> to <operators>\n");
    EXPECT_EQ(fields(lineOf("/etc/passwd", "watcher")).at(3), "10001");
}

// A failing install of group, gshadow, passwd or shadow (1st to 4th rename) in the migration:
// each pair stays as it was together, no temporary or kept file, the lock free; the group
// files, installed first, are the new version's after a failure of the others.
TEST_F(AccountFaults, AFailingInstallLeavesEachPairOfTheMigrationAsItWas) {
    const char* const installs[] = {"/etc/tmpgroup to /etc/group", "/etc/tmpgshadow to /etc/gshadow",
                                    "/etc/tmppassd to /etc/passwd", "/etc/tmpshadow to /etc/shadow"};
    for (int nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        restoreSampleDevice();
        std::vector<std::string> kept = {"/etc/passwd", "/etc/shadow"};
        if (nth <= 2) kept.insert(kept.end(), {"/etc/group", "/etc/gshadow"});
        const Snapshot before(kept, {"/etc/tmpgroup", "/etc/tmpgshadow", "/etc/tmppassd", "/etc/tmpshadow",
                                     "/etc/tmpgroup.old", "/etc/tmppassd.old"});
        EXPECT_EQ(driver("--fail posix/io/dir/rename " + std::to_string(nth) + " migrate").output,
                  "Updating System files...\nerror 13 rename error of:" + std::string(installs[nth - 1]) +
                      " 5Input/output error\nlock free\n");
        before.expectUnchanged();
        EXPECT_EQ(readFile("/etc/group") == readFile("/etc/group.orig"), nth > 2);
    }
}

// The real migration, killed at each installation of a file (the Nth rename) and run again:
// files and account states as after a run that was never stopped.
TEST_F(AccountFaults, AMigrationKilledAtAnyInstallAndRunAgainEndsAsAWholeRun) {
    const auto migrated = [] {
        const std::string output = driver("migrate").output;
        return std::make_pair(output, Snapshot().files);
    };
    const auto whole = migrated();
    EXPECT_NE(whole.first.find("tech viewers off"), std::string::npos) << whole.first;
    int kills = 0;
    for (;; ++kills) {
        restoreSampleDevice();
        const std::string kill = "--kill posix/io/dir/rename " + std::to_string(kills + 1);
        if (driver(kill + " migrate").status != 128 + SIGKILL) break;
        EXPECT_EQ(migrated(), whole) << kill;
    }
    // group, gshadow, passwd, shadow; four for each account's profile update (passwd, shadow, and
    // the member lists of group and gshadow) and two for tech's disabling.
    EXPECT_EQ(kills, 26);
    Snapshot({}, {"/etc/tmpgroup", "/etc/tmpgshadow", "/etc/tmppassd", "/etc/tmpshadow", "/etc/tmppassd.old"})
        .expectUnchanged();
}

}  // namespace
