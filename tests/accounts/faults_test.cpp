// Account operations meeting failing system calls and each other.  The failures are injected
// into accounts_fault_driver, one call per run, through libfiu's POSIX preload library; the
// concurrent writers are threads of this process and a driver process.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
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
    } cases[] = {
        {"create update remove reset", "", 0, ""},
        {"create update remove", "io/oc/open", 1, "13 fopen /etc/tmppassd prepareSystemFiles"},
        {"create update remove", "io/oc/open", 2, "13 fopen /etc/passwd prepareSystemFiles"},
        {"create update remove", "io/oc/open", 3, "13 fopen /etc/tmpshadow prepareSystemFiles"},
        {"create", "io/rw/read", 1, "10 addEntryInPasswordFile error in reading /etc/passwd"},
        {"create", "io/rw/read", 3, "10 addEntryInShadowFile error in reading /etc/shadow"},
        {"update", "io/rw/read", 1, "10 updateEntryInPasswordFile error in reading /etc/passwd"},
        {"remove", "io/rw/read", 1, "10 removeEntryInShadowFile error in reading /etc/shadow"},
        {"create update remove", "stdio/fflush", 1, "13 fflush or fsync error of:/etc/tmppassd"},
        {"create update remove", "io/sync/fsync", 2, "13 fflush or fsync error of:/etc/tmpshadow"},
        {"create update remove", "io/dir/rename", 1,
         "13 rename error of:/etc/tmppassd to /etc/passwd 5Input/output error"},
        {"create update remove", "io/dir/rename", 2,
         "13 rename error of:/etc/tmpshadow to /etc/shadow 5Input/output error"},
        {"create update remove", "io/dir/rename", 3,
         "13 rename error of:/etc/tmpgroup to /etc/group 5Input/output error"},
        {"create update remove", "io/dir/rename", 4,
         "13 rename error of:/etc/tmpgshadow to /etc/gshadow 5Input/output error"},
        {"reset", "io/oc/open", 1, "13 fopen /etc/tmpshadow prepareSystemFiles"},
        {"reset", "io/oc/open", 2, "13 fopen /etc/shadow prepareSystemFiles"},
        {"reset", "io/rw/read", 1, "10 updateEntryInShadowFile error in reading /etc/shadow"},
        {"reset", "stdio/fflush", 1, "13 fflush or fsync error of:/etc/tmpshadow"},
        {"reset", "io/sync/fsync", 1, "13 fflush or fsync error of:/etc/tmpshadow"},
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

// Threads of this process and a driver process create and remove accounts at the same time.
TEST_F(AccountFaults, ConcurrentCreationsAndRemovalsLoseAndDuplicateNothing) {
    constexpr int kThreads = 3, kEach = 30;
    catalogue.getProfiles(false);  // built before threads read it, as a host does at start-up
    FILE* process = popen((kDriver + " churn p- " + std::to_string(kEach) + " 2>&1").c_str(), "re");
    std::vector<std::string> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { results[t] = churn("t" + std::to_string(t) + "-", kEach); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(finish(process).output, "ok\n");
    for (const std::string& result : results) EXPECT_EQ(result, "ok");

    // The sample accounts and each run's odd ones, once in each file; every uid given once.
    const auto names = [](const std::string& path) {
        std::multiset<std::string> found;
        for (const std::string& line : lines(path)) found.insert(fields(line)[0]);
        return found;
    };
    std::multiset<std::string> expected = names(pristineDir() + "/passwd");
    for (const std::string prefix : {"p-", "t0-", "t1-", "t2-"})
        for (int i = 1; i < kEach; i += 2) expected.insert(prefix + std::to_string(i));
    EXPECT_EQ(names("/etc/passwd"), expected);
    EXPECT_EQ(names("/etc/shadow"), expected);
    std::set<std::string> uids;
    for (const std::string& line : lines("/etc/passwd")) EXPECT_TRUE(uids.insert(fields(line)[2]).second) << line;
    const Result checks = run("/usr/sbin/pwck -r && /usr/sbin/grpck -r");
    EXPECT_EQ(checks.status, 0) << checks.output;
    Snapshot(std::vector<std::string>{}).expectUnchanged();  // no temporary file, the lock free
}

}  // namespace
