// Identity switching of single threads, observed through /proc (the kernel's view).  Every
// switch happens in a worker thread so that the test's main thread stays root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <utility>

#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>

#include "ThreadIdentity.h"
#include "foundation/Descriptor.h"
#include "support/Sandbox.h"

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

// The trace directory is a tmpfs of the test's own, mounted in the sandbox's private mount
// namespace: the host's /tmp sees at most an empty mount point, and a host's own trace stays
// hidden and untouched.
class SystemPermissionTrace : public SandboxTest {
protected:
    static constexpr const char* kDir = "/tmp/download";
    static constexpr const char* kFile = "/tmp/download/sessionP.txt";
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        m_createdDir = mkdir(kDir, 0755) == 0;
        ASSERT_EQ(mount("tvc-trace", kDir, "tmpfs", MS_NOSUID, "mode=0755,size=1m"), 0) << std::strerror(errno);
        m_mounted = true;
    }
    void TearDown() override {
        if (m_overTmp) umount2("/tmp", MNT_DETACH);
        if (m_mounted) umount2(kDir, MNT_DETACH);
        if (m_createdDir) rmdir(kDir);
    }
    // Whatever can be read at `path` right away (a FIFO gives what was written into it).
    static std::string contents(const std::string& path) {
        const usermanagement::detail::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        std::string text;
        char piece[256];
        for (ssize_t n; file && (n = read(file.get(), piece, sizeof piece)) > 0;)
            text.append(piece, static_cast<size_t>(n));
        return text;
    }
    bool m_createdDir = false;
    bool m_mounted = false;
    bool m_overTmp = false;  // a tmpfs over all of /tmp, for a link in place of the directory
};

TEST_F(SystemPermissionTrace, LinesGoToStandardOutputAndAreAppendedToTheFile) {
    TVC_REQUIRE_ROOT();
    inThread([] {
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
        EXPECT_EQ(contents(kFile), block + block + now);

        // As 10001 the root-owned file cannot be opened: standard output is still written.
        snapshot.restorePermission();
        testing::internal::CaptureStdout();
        snapshot.print();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block + "\n");
        snapshot.setRealPermissions();  // to read the file
        EXPECT_EQ(contents(kFile), block + block + now);
    });
}

// print() as root with something planted at the trace path: only a regular file of root's
// with one name is written, and nothing blocks.
TEST_F(SystemPermissionTrace, WritesOnlyARegularFileOfItsOwnWithOneName) {
    const std::string other = std::string(kDir) + "/other";
    const SystemPermission snapshot;
    testing::internal::CaptureStdout();
    snapshot.print();
    const std::string block = testing::internal::GetCapturedStdout();
    const std::string trace = block.substr(0, block.size() - 1);  // without the blank line
    usermanagement::detail::Descriptor reader;
    const struct {
        const char* what;
        std::function<void()> plant;
        std::string watched, expected;  // contents of `watched` afterwards
        mode_t mode;                    // of what is at the path afterwards, 0: nothing
    } cases[] = {
        {"nothing", [] {}, kFile, trace, S_IFREG | 0600},
        {"an earlier trace", [] { writeFile(kFile, "earlier\n"); }, kFile, "earlier\n" + trace, S_IFREG | 0644},
        {"a symbolic link", [&] { writeFile(other, "other\n"); ASSERT_EQ(symlink(other.c_str(), kFile), 0); },
         other, "other\n", S_IFLNK | 0777},
        {"a hard link", [&] { writeFile(other, "other\n"); ASSERT_EQ(link(other.c_str(), kFile), 0); },
         other, "other\n", S_IFREG | 0644},
        {"another user's file", [] { writeFile(kFile, "other\n"); ASSERT_EQ(chown(kFile, 10001, 10001), 0); },
         kFile, "other\n", S_IFREG | 0644},
        {"a FIFO nobody reads", [] { ASSERT_EQ(mkfifo(kFile, 0600), 0); }, kFile, "", S_IFIFO | 0600},
        {"a FIFO with a reader", [&] {
             ASSERT_EQ(mkfifo(kFile, 0600), 0);
             reader.reset(open(kFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
         }, kFile, "", S_IFIFO | 0600},
        // Last: from here on a tmpfs covers all of /tmp, until TearDown.
        {"a link in place of the directory", [this] {
             ASSERT_EQ(mount("tvc-trace", "/tmp", "tmpfs", MS_NOSUID, "mode=1777,size=1m"), 0);
             m_overTmp = true;
             ASSERT_TRUE(mkdir("/tmp/elsewhere", 0755) == 0 && symlink("elsewhere", kDir) == 0);
         }, "/tmp/elsewhere/sessionP.txt", "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(kFile);
        std::remove(other.c_str());
        reader.reset();
        c.plant();
        testing::internal::CaptureStdout();
        auto printing = std::async(std::launch::async, [&snapshot] { snapshot.print(); });
        if (printing.wait_for(std::chrono::seconds(3)) != std::future_status::ready) {
            ADD_FAILURE() << "print() blocked";
            // A reader lets a blocked open return.
            const usermanagement::detail::Descriptor release(open(kFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            printing.wait();
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block);
        EXPECT_EQ(contents(c.watched), c.expected);
        struct stat status {};
        lstat(kFile, &status);
        EXPECT_EQ(status.st_mode, c.mode);
    }
}

}  // namespace
