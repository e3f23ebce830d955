// Identity switching of single threads, observed through /proc (the kernel's view).  Every
// switch happens in a worker thread so that the test's main thread stays root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <optional>
#include <utility>

#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>

#include "ThreadIdentity.h"

using usermanagement::PMException;
using usermanagement::SystemPermission;
using namespace tvc::test;

namespace {

// operator, account 10001, with two supplementary groups.
const std::vector<unsigned int> kOperatorGroups{4201, 10001};
constexpr uid_t kSame = ids::kUnchanged;

TEST(SystemPermission, SwitchesOnlyTheCallingThreadAndRestoresTheSnapshotOnce) {
    TVC_REQUIRE_ROOT();
    const pid_t mainTid = threadId();
    const ThreadIds mainBefore = myIds();
    inThread([&] {
        // Saved ids that are not root: after the restore they are, so the thread can switch again.
        becomeThread(0, 10001, 10002, kOperatorGroups);
        const ThreadIds before = myIds();
        { SystemPermission untouched; }
        EXPECT_EQ(myIds(), before);
        {
            SystemPermission permission;
            permission.setRealPermissions();
            permission.setRealPermissions();
            EXPECT_EQ(myIds().uid, triple(0, 0, 0));
            EXPECT_EQ(myIds().gid, before.gid);  // only the user ids are raised
            // Work done as root that changes the groups and the group id.
            ASSERT_EQ(ids::setGroups(1, std::vector<unsigned int>{42}.data()), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
        }
        EXPECT_EQ(myIds(), (ThreadIds{triple(0, 10001, 0), triple(0, 10001, 0), kOperatorGroups}));
        // Process-wide wrappers would have taken the main thread along.
        EXPECT_EQ(idsOf(mainTid), mainBefore);
    });
}

TEST(SystemPermission, WithoutRootProfileNothingIsSwitchedButTheStateChanges) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        const ThreadIds before = myIds();
        {
            SystemPermission permission;
            std::optional<ScopedRootProfile> noRoot(std::in_place, [] { return false; });
            // Any system call would show as effective uid 0 or saved uid 10001.
            permission.setUpPermission();
            permission.setRealPermissions();
            permission.setUserPermissionDefinitely();
            SystemPermission().setRealPermissions();  // and a destructor in the changed state
            EXPECT_EQ(myIds(), before);
            // Once switching is allowed again the destructor restores: the state had changed.
            noRoot.reset();
            ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
            ASSERT_EQ(ids::setResUid(kSame, 10001, kSame), 0);
        }
        EXPECT_EQ(myIds().gid, triple(0, 10001, 0));
    });
}

TEST(SystemPermission, WithoutAWayBackToRoot) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(10001, 10001, 10001, kOperatorGroups);
        SystemPermission permission;
        try {
            permission.setRealPermissions();
            ADD_FAILURE() << "setRealPermissions succeeded without any root id";
        } catch (const PMException& e) {
            EXPECT_EQ(e.getErrorId(), 15);
            EXPECT_STREQ(e.what(), "setUpPermission");
        }
    });
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        {
            SystemPermission permission;
            permission.setRealPermissions();
            // Root given up for good behind the object's back, 10001 still reachable.
            ASSERT_EQ(ids::setResGid(10001, 10001, 10001), 0);
            ASSERT_EQ(ids::setResUid(10001, 10002, 10001), 0);
            EXPECT_THROW(permission.restorePermission(), PMException);
        }  // the destructor restores what an unprivileged thread can
        EXPECT_EQ(myIds(), (ThreadIds{triple(10001, 10001, 10001), triple(10001, 10001, 10001), kOperatorGroups}));
    });
}

TEST(SystemPermissionDeathTest, DestructorThatCannotReturnToTheSnapshotAborts) {
    TVC_REQUIRE_ROOT();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SystemPermission permission;  // root
            permission.setRealPermissions();
            ids::setResGid(10001, 10001, 10001);
            ids::setResUid(10001, 10001, 10001);
        },
        "cannot return to euid 0 egid 0");
}

// In a child process: the exit code names the first check that failed.
int dropForGood() {
    if (ids::setGroups(2, kOperatorGroups.data()) != 0 || ids::setResGid(0, 10001, 0) != 0 ||
        ids::setResUid(0, 10001, 0) != 0)
        return 10;
    try {
        SystemPermission permission;
        permission.setUserPermissionDefinitely();
    } catch (...) {
        return 11;
    }
    const std::vector<unsigned int> all10001 = triple(10001, 10001, 10001);
    if (!(myIds() == ThreadIds{all10001, all10001, kOperatorGroups})) return 12;  // groups are kept
    return ids::setResUid(kSame, 0, 0) != -1 || ids::setResGid(kSame, 0, 0) != -1 ? 14 : 0;
}

TEST(SystemPermission, DropForGoodCannotBeUndone) {
    TVC_REQUIRE_ROOT();
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) _exit(dropForGood());
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "exit code " << WEXITSTATUS(status);
}

TEST(SystemPermission, CopyAndMoveCarryTheSnapshotAndTheDutyToRestore) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        const ThreadIds before = myIds();
        SystemPermission original;
        original.setRealPermissions();
        {
            SystemPermission copy(original);
            ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        }  // the copy was changed too and restores with its own array
        EXPECT_EQ(myIds(), before);
        original.restorePermission();  // its array outlived the copy's

        std::optional<SystemPermission> source(std::in_place);
        source->setRealPermissions();
        SystemPermission moved(std::move(*source));
        source.reset();  // a moved-from object does not undo the switch
        EXPECT_EQ(myIds().uid, triple(0, 0, 0));
        ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        moved.restorePermission();
        EXPECT_EQ(myIds(), before);  // the array was taken over
    });
}

// The trace file lives in /tmp/download; the fixture leaves both as it found them.
class SystemPermissionTrace : public ::testing::Test {
protected:
    static constexpr const char* kFile = "/tmp/download/sessionP.txt";
    void SetUp() override {
        m_createdDir = mkdir("/tmp/download", 0755) == 0;
        if (access(kFile, F_OK) == 0) m_before = slurp();
    }
    void TearDown() override {
        if (m_before) std::ofstream(kFile, std::ios::trunc) << *m_before;
        else std::remove(kFile);
        if (m_createdDir) rmdir("/tmp/download");
    }
    std::string appended() const { return slurp().substr(m_before.value_or("").size()); }
    static std::string slurp() {
        std::ostringstream text;
        text << std::ifstream(kFile).rdbuf();
        return text.str();
    }
    bool m_createdDir = false;
    std::optional<std::string> m_before;  // none: there was no file
};

TEST_F(SystemPermissionTrace, LinesGoToStandardOutputAndAreAppendedToTheFile) {
    TVC_REQUIRE_ROOT();
    inThread([this] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        SystemPermission snapshot;
        snapshot.setRealPermissions();  // the trace directory belongs to root
        ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        const std::string block =
            "m_euid 10001\nm_ruid 0\nm_saveuid 0\nm_egid 10001\nm_rgid 0\nm_savegid 0\nm_nbreGroup 2\n"
            "grp:4201\ngrp:10001\n";
        const std::string now = "m_euid 0\nm_ruid 0\nm_saveuid 0\nm_egid 10001\nm_rgid 0\nm_savegid 0\nm_nbreGroup 0\n";
        testing::internal::CaptureStdout();
        snapshot.print();
        snapshot.print();
        snapshot.printCurrentUids();
        snapshot.whoAmi();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block + "\n" + block + "\n" + now + "\nruid 0 euid 0 saveuid 0\n");
        EXPECT_EQ(appended(), block + block + now);

        // As 10001 the root-owned file cannot be opened: standard output is still written.
        snapshot.restorePermission();
        testing::internal::CaptureStdout();
        snapshot.print();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block + "\n");
        if (!m_before) {
            EXPECT_EQ(appended(), block + block + now);
        }
    });
}

}  // namespace
