// Account operations meeting failing system calls.  The failures are injected into
// accounts_fault_driver, one call per run, through libfiu's POSIX preload library.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "accounts/driver/AccountDriver.h"
#include "files/FilesTestSupport.h"
#include "support/DeviceFixture.h"

using namespace tvc::test;

namespace {

const std::string kDriver = TVC_ACCOUNTS_DRIVER;
using AccountFaults = DeviceTest<RoomyDefinition>;

// Whatever step fails: passwd, shadow, group and gshadow byte for byte as before, no temporary
// or kept file, the lock free, and the caller (admin, root only inside the operation) itself
// again.  When a later install fails, the files installed before it are put back.
TEST_F(AccountFaults, AFailingFileStepLeavesFilesLockAndCallerAsTheyWere) {
#ifndef TVC_FIU_PRELOAD
    GTEST_SKIP() << "libfiu (packages libfiu-dev and fiu-utils) not installed";
#else
    const std::map<std::string, std::string> commands = {{"create", "create newbie"},
                                                         {"update", "update viewer watcher"},
                                                         {"remove", "remove guest"},
                                                         {"reset", "reset operator"}};
    const struct {
        const char* operations;
        const char* point;  // under posix/; "": none
        int nth;            // the call of `point` that fails
        const char* failure;
    } cases[] = {  // the transaction's steps once; the entry functions' reads each
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
            const std::string fail = c.nth ? " --fail posix/" + std::string(c.point) + " " + std::to_string(c.nth) : "";
            const Result result =
                run("LD_PRELOAD='" TVC_FIU_PRELOAD "' " + kDriver + fail + " " + commands.at(operation) + " 2>&1");
            // The result, the caller's ids before and after the operation, the lock as the driver saw it.
            EXPECT_EQ(result.output,
                      (c.nth ? "error " + std::string(c.failure) : "ok") + "\n" + admin + admin + "lock free\n");
            (c.nth ? before : Snapshot(std::vector<std::string>{})).expectUnchanged();
        }
    }
#endif
}

// The name-service cache is told to reload after the change is installed.  When even its
// command cannot start, the change stays made, and its events are in the audit trail already.
TEST_F(AccountFaults, AReloadThatCannotStartLeavesTheInstalledChangeAudited) {
#ifndef TVC_FIU_PRELOAD
    GTEST_SKIP() << "libfiu (packages libfiu-dev and fiu-utils) not installed";
#else
    const Result result = run("TVC_DRIVER_EVENTS=1 LD_PRELOAD='" TVC_FIU_PRELOAD "' " + kDriver +
                              " --fail posix/proc/fork 1 update viewer watcher 2>&1");
    EXPECT_EQ(result.output.substr(0, result.output.find('\n')),
              "error 13 updateUser: the change is made, but the name-service cache reload failed: popen() failed!");
    const std::string events = result.output.substr(result.output.find("lock free\n") + 10);
    EXPECT_EQ(events,
              "event User account - name changed from <viewer> to <watcher>\n"
              "event User account - profile of <watcher> changed from <viewers> to <operators>\n");
    EXPECT_EQ(fields(lineOf("/etc/passwd", "watcher")).at(3), "10001");
#endif
}

// The migration meets a failing install of the group file (1st rename), the group shadow file
// (2nd), the password file (3rd) or the shadow file (4th): each pair stays as it was together,
// no temporary or kept file, the lock free; the group files, installed first, are the new
// version's after them.
TEST_F(AccountFaults, AFailingInstallLeavesEachPairOfTheMigrationAsItWas) {
#ifndef TVC_FIU_PRELOAD
    GTEST_SKIP() << "libfiu (packages libfiu-dev and fiu-utils) not installed";
#else
    const std::pair<std::string, std::string> installs[] = {{"/etc/tmpgroup", "/etc/group"},
                                                            {"/etc/tmpgshadow", "/etc/gshadow"},
                                                            {"/etc/tmppassd", "/etc/passwd"},
                                                            {"/etc/tmpshadow", "/etc/shadow"}};
    for (int nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        restoreSampleDevice();
        std::vector<std::string> kept = {"/etc/passwd", "/etc/shadow"};
        if (nth <= 2) kept.insert(kept.end(), {"/etc/group", "/etc/gshadow"});
        const Snapshot before(kept, {"/etc/tmpgroup", "/etc/tmpgshadow", "/etc/tmppassd", "/etc/tmpshadow",
                                     "/etc/tmpgroup.old", "/etc/tmppassd.old"});
        const Result result = run("LD_PRELOAD='" TVC_FIU_PRELOAD "' " + kDriver + " --fail posix/io/dir/rename " +
                                  std::to_string(nth) + " migrate 2>&1");
        const auto& [from, to] = installs[nth - 1];
        EXPECT_EQ(result.output, "Updating System files...\nerror 13 rename error of:" + from + " to " + to +
                                     " 5Input/output error\nlock free\n");
        before.expectUnchanged();
        EXPECT_EQ(readFile("/etc/group") == readFile("/etc/group.orig"), nth > 2);
    }
#endif
}

}  // namespace
