// Identity switching of single threads, observed through /proc.
#include <fcntl.h>
#include <linux/securebits.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <optional>

#include <usermanagement/ErrorCodes.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>

#include "ThreadIdentity.h"
#include "foundation/Descriptor.h"

using usermanagement::PMError;
using usermanagement::PMException;
using usermanagement::SystemPermission;
using namespace tvc::test;

namespace {

// operator, account 10001, with two supplementary groups.
const std::vector<gid_t> kOperatorGroups{4201, 10001};
const std::string kOperator = "Uid: 0 10001 0 10001 Gid: 0 10001 0 10001 Groups: 4201 10001 ";

// The message of the PMException `call` throws, or "" when it throws none.
std::string failure(const std::function<void()>& call) {
    try {
        call();
    } catch (const PMException& e) {
        EXPECT_EQ(e.getErrorId(), PMError::UpdatePrivilegeFailed);
        return e.what();
    }
    return "";
}

TEST_F(IdentityTest, SwitchesOnlyTheCallingThreadAndRestoresTheSnapshot) {
    const pid_t mainTid = threadId();
    const std::string mainBefore = idsOf();
    inThread([&] {
        // Saved ids that are not root: after the restore they are, so the thread can switch again.
        becomeThread(0, 10001, 10002, kOperatorGroups);
        const std::string before = idsOf();
        { SystemPermission untouched; }
        EXPECT_EQ(idsOf(), before);
        SystemPermission permission;
        permission.setRealPermissions();
        EXPECT_EQ(idsOf(), "Uid: 0 0 0 0 Gid: 0 10001 10002 10001 Groups: 4201 10001 ");
        // Work done as root that changes the groups and the group id.
        ASSERT_EQ(ids::setGroups(1, std::vector<gid_t>{42}.data()), 0);
        ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
        permission.restorePermission();
        EXPECT_EQ(idsOf(), kOperator);
        EXPECT_EQ(idsOf(mainTid), mainBefore);  // process-wide calls would have taken it along
        permission.setRealPermissions();        // a restored object switches again
        EXPECT_EQ(idsOf().substr(0, 15), "Uid: 0 0 0 0 Gi");
    });
}

TEST_F(IdentityTest, WithoutRootProfileNothingIsSwitchedButTheStateChanges) {
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        {
            SystemPermission permission;
            std::optional<ScopedRootProfile> noRoot(std::in_place, [] { return false; });
            permission.setUpPermission();
            permission.setRealPermissions();
            permission.setUserPermissionDefinitely();
            SystemPermission().setRealPermissions();  // and a destructor in the changed state
            EXPECT_EQ(idsOf(), kOperator);
            // Once switching is allowed again the destructor restores: the state had changed.
            noRoot.reset();
            ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
            ASSERT_EQ(ids::setResUid(kSame, 10001, kSame), 0);
        }
        EXPECT_EQ(idsOf(), kOperator);
    });
}

TEST_F(IdentityTest, WithoutAWayBackToRoot) {
    inThread([] {
        becomeThread(10001, 10001, 10001, kOperatorGroups);
        SystemPermission permission;
        EXPECT_EQ(failure([&] { permission.setRealPermissions(); }), "setUpPermission");
        EXPECT_EQ(failure([&] { permission.setUserPermissionDefinitely(); }), "setUpPermission");
    });
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        {
            SystemPermission permission;
            permission.setRealPermissions();
            // Root given up for good behind the object's back, 10001 still reachable.
            ASSERT_EQ(ids::setResGid(10001, 10001, 10001), 0);
            ASSERT_EQ(ids::setResUid(10001, 10002, 10001), 0);
            EXPECT_EQ(failure([&] { permission.restorePermission(); }), "setUpPermission");
        }  // the destructor restores what an unprivileged thread can
        EXPECT_EQ(idsOf(), "Uid: 10001 10001 10001 10001 Gid: 10001 10001 10001 10001 Groups: 4201 10001 ");
    });
}

using IdentityDeathTest = IdentityTest;

TEST_F(IdentityDeathTest, DestructorThatCannotReturnToTheSnapshotAborts) {
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

// Dropping for good after work done as root (group id 42): the snapshot's ids become every
// id, groups stay, and root is out of reach.  A thread that keeps its capabilities through the
// id change (SECBIT_NO_SETUID_FIXUP) could climb back: that drop is refused and undone.
TEST_F(IdentityTest, DropForGoodLeavesNoWayBackToRoot) {
    for (const unsigned long securebits : {0ul, static_cast<unsigned long>(SECBIT_NO_SETUID_FIXUP)})
        inThread([securebits] {
            SCOPED_TRACE(securebits);
            ASSERT_EQ(prctl(PR_SET_SECUREBITS, securebits, 0, 0, 0), 0);
            becomeThread(0, 10001, 0, kOperatorGroups);
            SystemPermission permission;
            ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
            EXPECT_EQ(failure([&] { permission.setUserPermissionDefinitely(); }),
                      securebits == 0 ? "" : "setUserPermission sys_setresuid");
            EXPECT_EQ(idsOf(), "Uid: 10001 10001 10001 10001 Gid: 10001 10001 10001 10001 Groups: 4201 10001 ");
            EXPECT_EQ(ids::setResUid(kSame, 0, kSame), securebits == 0 ? -1 : 0);
        });
}

TEST_F(IdentityTest, CopyAndMoveCarryTheSnapshotAndTheDutyToRestore) {
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        SystemPermission original;
        original.setRealPermissions();
        {
            SystemPermission copy(original);
            ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        }  // the copy was changed too and restores with its own array
        EXPECT_EQ(idsOf(), kOperator);
        original.restorePermission();  // its array outlived the copy's

        std::optional<SystemPermission> source(std::in_place);
        source->setRealPermissions();
        SystemPermission moved(std::move(*source));
        source.reset();  // a moved-from object does not undo the switch
        EXPECT_EQ(idsOf().substr(0, 15), "Uid: 0 0 0 0 Gi");
        ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        moved.restorePermission();
        EXPECT_EQ(idsOf(), kOperator);  // the array was taken over
    });
}

// print() as root with something planted at the trace path: only a regular file of root's
// with one name is written, and nothing blocks.  The trace directory is a tmpfs of the test's
// own, in the sandbox's private mount namespace: the host's /tmp sees at most an empty directory.
TEST_F(IdentityTest, TraceWritesOnlyARegularFileOfItsOwnWithOneName) {
    const std::string dir = "/tmp/download", file = dir + "/sessionP.txt", other = dir + "/other";
    const bool created = mkdir(dir.c_str(), 0755) == 0;
    ASSERT_EQ(mount("tvc-trace", dir.c_str(), "tmpfs", 0, "mode=0755"), 0);
    const SystemPermission snapshot;
    testing::internal::CaptureStdout();
    snapshot.print();
    const std::string block = testing::internal::GetCapturedStdout();
    const std::string trace = block.substr(0, block.size() - 1);  // the file gets no blank line
    usermanagement::detail::Descriptor reader;
    const char* const f = file.c_str();
    const char* const o = other.c_str();
    const struct {
        const char* what;
        std::function<bool()> plant;
        std::string watched, expected;  // contents of `watched` afterwards
        mode_t mode;                    // of what is at the path afterwards, 0: nothing
    } cases[] = {
        {"nothing", [] { return true; }, file, trace, S_IFREG | 0600},
        {"an earlier trace", [&] { return writeFile(file, "earlier\n"), true; }, file, "earlier\n" + trace, S_IFREG | 0644},
        {"a symbolic link", [&] { return writeFile(other, "o"), symlink(o, f) == 0; }, other, "o", S_IFLNK | 0777},
        {"a hard link", [&] { return writeFile(other, "o"), link(o, f) == 0; }, other, "o", S_IFREG | 0644},
        {"another user's file", [&] { return writeFile(file, "o"), chown(f, 10001, 10001) == 0; }, file, "o", S_IFREG | 0644},
        {"a FIFO nobody reads", [&] { return mkfifo(f, 0600) == 0; }, file, "", S_IFIFO | 0600},
        {"a FIFO with a reader", [&] { return mkfifo(f, 0600) == 0 && (reader.reset(open(f, O_RDONLY | O_NONBLOCK)), reader); },
         file, "", S_IFIFO | 0600},
        // Last: a tmpfs over all of /tmp from here on.
        {"a link in place of the directory", [&] {
             return mount("tvc-trace", "/tmp", "tmpfs", 0, "mode=1777") == 0 && mkdir("/tmp/elsewhere", 0755) == 0 &&
                    symlink("elsewhere", dir.c_str()) == 0;
         }, "/tmp/elsewhere/sessionP.txt", "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(f);
        std::remove(o);
        reader.reset();
        ASSERT_TRUE(c.plant());
        testing::internal::CaptureStdout();
        auto printing = std::async(std::launch::async, [&snapshot] { snapshot.print(); });
        if (printing.wait_for(std::chrono::seconds(3)) != std::future_status::ready) {
            ADD_FAILURE() << "print() blocked";
            reader.reset(open(f, O_RDONLY | O_NONBLOCK));  // lets a blocked open return
            printing.wait();
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block);
        const usermanagement::detail::Descriptor watched(open(c.watched.c_str(), O_RDONLY | O_NONBLOCK));
        char text[4096];
        const ssize_t length = watched ? read(watched.get(), text, sizeof text) : 0;
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0))), c.expected);
        struct stat status {};
        lstat(f, &status);
        EXPECT_EQ(status.st_mode, c.mode);
    }
    umount2("/tmp", MNT_DETACH);
    umount2(dir.c_str(), MNT_DETACH);
    if (created) rmdir(dir.c_str());
}

}  // namespace
