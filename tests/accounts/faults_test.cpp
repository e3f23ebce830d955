// Account operations and the migration meeting failing system calls, or killed at one.  The
// failures are injected into accounts_fault_driver, one call per run, through libfiu's POSIX
// preload library.
#include <csignal>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "files/FilesTestSupport.h"

using namespace tvc::test;

namespace {

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
        {"create", "io/oc/open", 1, "13 fopen /etc/tmppassd prepareSystemFiles"},
        {"create", "io/oc/open", 2, "13 fopen /etc/passwd prepareSystemFiles"},
        {"create", "io/oc/open", 3, "13 fopen /etc/tmpshadow prepareSystemFiles"},
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

// The migration meets a failing install of the group file (1st rename), the group shadow file
// (2nd), the password file (3rd) or the shadow file (4th): each pair stays as it was together,
// no temporary or kept file, the lock free; the group files, installed first, are the new
// version's after them.
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
