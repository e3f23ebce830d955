// Identity switching of single threads, observed through /proc (the kernel's view), never
// through the class itself.  Every switch happens in a worker thread so that the test
// process's main thread stays root whatever a test does.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>

#include "ThreadIdentity.h"

using usermanagement::PMException;
using usermanagement::SystemPermission;
using namespace tvc::test;
namespace ids = usermanagement::detail::ids;

namespace {

// operator, account 10001, with two supplementary groups.
const std::vector<unsigned int> kOperatorGroups{4201, 10001};

template <class Body>
void inThread(Body body) {
    std::thread worker(body);
    worker.join();
}

TEST(SystemPermissionThreads, OneThreadSwitchesWhileAnotherStaysRoot) {
    TVC_REQUIRE_ROOT();
    const ThreadIds mainBefore = myIds();
    Baton baton;
    pid_t workerTid = 0;
    std::thread worker([&] {
        workerTid = threadId();
        becomeThread(0, 10001, 0, kOperatorGroups);
        {
            SystemPermission snapshot;
            EXPECT_EQ(snapshot.getRuid(), 0u);
            EXPECT_EQ(snapshot.getEuid(), 10001u);
            EXPECT_EQ(snapshot.getSuid(), 0u);
            EXPECT_EQ(snapshot.getRgid(), 0u);
            EXPECT_EQ(snapshot.getEgid(), 10001u);
            EXPECT_EQ(snapshot.getSgid(), 0u);
            baton.reach(1);  // switched to the account
            baton.waitFor(2);
            snapshot.setRealPermissions();
            baton.reach(3);  // effective root
            baton.waitFor(4);
        }
        baton.reach(5);  // restored by the destructor
        baton.waitFor(6);
    });

    baton.waitFor(1);
    ThreadIds w = idsOf(workerTid);
    EXPECT_EQ(w.uid, triple(0, 10001, 0));
    EXPECT_EQ(w.gid, triple(0, 10001, 0));
    EXPECT_EQ(w.groups, kOperatorGroups);
    EXPECT_EQ(myIds().uid, mainBefore.uid);
    EXPECT_EQ(myIds().groups, mainBefore.groups);
    EXPECT_EQ(geteuid(), 0u);
    baton.reach(2);

    baton.waitFor(3);
    w = idsOf(workerTid);
    EXPECT_EQ(w.uid, triple(0, 0, 0));
    EXPECT_EQ(w.gid, triple(0, 10001, 0));  // only the user ids are raised
    baton.reach(4);

    baton.waitFor(5);
    w = idsOf(workerTid);
    EXPECT_EQ(w.uid, triple(0, 10001, 0));
    EXPECT_EQ(w.gid, triple(0, 10001, 0));
    EXPECT_EQ(w.groups, kOperatorGroups);
    EXPECT_EQ(myIds().uid, mainBefore.uid);
    EXPECT_EQ(myIds().gid, mainBefore.gid);
    EXPECT_EQ(myIds().groups, mainBefore.groups);
    baton.reach(6);
    worker.join();
}

TEST(SystemPermissionThreads, ConstructionAndDestructionAloneChangeNothing) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 10002, kOperatorGroups);
        const ThreadIds before = myIds();
        { SystemPermission untouched; }
        const ThreadIds after = myIds();
        EXPECT_EQ(after.uid, before.uid);
        EXPECT_EQ(after.gid, before.gid);
        EXPECT_EQ(after.groups, before.groups);
    });
}

TEST(SystemPermissionThreads, RestoreAfterTwoSwitchesPutsBackEffectiveIdsWithSavedRoot) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        // Saved ids that are not root: after the restore they are, so the thread can switch again.
        becomeThread(0, 10001, 10002, kOperatorGroups);
        {
            SystemPermission permission;
            permission.setRealPermissions();
            permission.setRealPermissions();
            EXPECT_EQ(myIds().uid, triple(0, 0, 0));
            // Work done as root that changes the groups and the group id.
            ASSERT_EQ(ids::setGroups(1, std::vector<unsigned int>{42}.data()), 0);
            ASSERT_EQ(ids::setResGid(ids::kUnchanged, 42, ids::kUnchanged), 0);
        }
        const ThreadIds after = myIds();
        EXPECT_EQ(after.uid, triple(0, 10001, 0));
        EXPECT_EQ(after.gid, triple(0, 10001, 0));
        EXPECT_EQ(after.groups, kOperatorGroups);

        // restorePermission returns to the unchanged state: a second call and the destructor do nothing.
        SystemPermission again;
        again.setRealPermissions();
        again.restorePermission();
        ASSERT_EQ(ids::setResUid(ids::kUnchanged, 0, ids::kUnchanged), 0);
        again.restorePermission();
        EXPECT_EQ(myIds().uid, triple(0, 0, 0));
    });
}

TEST(SystemPermissionThreads, WithoutRootProfileNothingIsSwitchedButTheStateChanges) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        const ThreadIds before = myIds();
        {
            SystemPermission permission;
            std::optional<NoRootProfile> noRoot;
            noRoot.emplace();
            // Any of these making a system call would show as effective uid 0 or saved uid 10001.
            permission.setUpPermission();
            permission.setRealPermissions();
            permission.setUserPermissionDefinitely();
            EXPECT_EQ(myIds().uid, before.uid);
            permission.restorePermission();
            EXPECT_EQ(myIds().uid, before.uid);

            permission.setRealPermissions();
            EXPECT_EQ(myIds().uid, before.uid);
            {
                SystemPermission scoped;
                scoped.setRealPermissions();
            }
            EXPECT_EQ(myIds().uid, before.uid);
            EXPECT_EQ(myIds().gid, before.gid);
            EXPECT_EQ(myIds().groups, before.groups);
            // `permission` is left in the changed state; once switching is allowed again, its
            // destructor restores, which shows that the state had changed.
            noRoot.reset();
            ASSERT_EQ(ids::setResUid(ids::kUnchanged, 0, ids::kUnchanged), 0);
            ASSERT_EQ(ids::setResGid(ids::kUnchanged, 42, ids::kUnchanged), 0);
            ASSERT_EQ(ids::setResUid(ids::kUnchanged, 10001, ids::kUnchanged), 0);
        }
        EXPECT_EQ(myIds().gid, triple(0, 10001, 0));
    });
}

TEST(SystemPermissionThreads, RootThatCannotBeRegainedIsAPMException) {
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
        // Still unchanged: a second attempt fails the same way instead of doing nothing.
        EXPECT_THROW(permission.setRealPermissions(), PMException);
        EXPECT_EQ(myIds().uid, triple(10001, 10001, 10001));
    });
}

TEST(SystemPermissionThreads, DestructorRestoresWhatItCanWithoutRoot) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        {
            SystemPermission permission;
            permission.setRealPermissions();
            // Someone gives up root for good behind the object's back, keeping 10001 reachable.
            ASSERT_EQ(ids::setResGid(10001, 10001, 10001), 0);
            ASSERT_EQ(ids::setResUid(10001, 10002, 10001), 0);
            EXPECT_THROW(permission.restorePermission(), PMException);
        }
        EXPECT_EQ(myIds().uid, triple(10001, 10001, 10001));
        EXPECT_EQ(myIds().gid, triple(10001, 10001, 10001));
        EXPECT_EQ(myIds().groups, kOperatorGroups);
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

TEST(SystemPermissionProcess, DropForGoodCannotBeUndone) {
    TVC_REQUIRE_ROOT();
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Exit codes name the first check that failed.
        if (ids::setGroups(static_cast<int>(kOperatorGroups.size()), kOperatorGroups.data()) != 0 ||
            ids::setResGid(0, 10001, 0) != 0 || ids::setResUid(0, 10001, 0) != 0)
            _exit(10);
        try {
            SystemPermission permission;
            permission.setUserPermissionDefinitely();
        } catch (...) {
            _exit(11);
        }
        uid_t r = 0, e = 0, s = 0;
        gid_t rg = 0, eg = 0, sg = 0;
        getresuid(&r, &e, &s);
        getresgid(&rg, &eg, &sg);
        if (r != 10001 || e != 10001 || s != 10001) _exit(12);
        if (rg != 10001 || eg != 10001 || sg != 10001) _exit(13);
        if (ids::getGroups(0, nullptr) != 2) _exit(14);  // groups are kept
        errno = 0;
        if (ids::setResUid(ids::kUnchanged, 0, 0) != -1 || errno != EPERM) _exit(15);
        if (ids::setResGid(ids::kUnchanged, 0, 0) != -1 || errno != EPERM) _exit(16);
        SystemPermission again;
        try {
            again.setUpPermission();
            _exit(17);
        } catch (const PMException&) {
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SystemPermissionCopy, CopyAndMoveCarryTheSnapshotAndTheDutyToRestore) {
    TVC_REQUIRE_ROOT();
    inThread([] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        SystemPermission original;
        original.setRealPermissions();
        {
            SystemPermission copy(original);
            EXPECT_EQ(copy.getEuid(), 10001u);
            EXPECT_EQ(copy.getEgid(), 10001u);
            EXPECT_EQ(copy.getSuid(), 0u);
            ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        }
        // The copy was in the changed state and restored with its own copy of the groups.
        EXPECT_EQ(myIds().uid, triple(0, 10001, 0));
        EXPECT_EQ(myIds().groups, kOperatorGroups);
        original.restorePermission();

        std::optional<SystemPermission> source;
        source.emplace();
        source->setRealPermissions();
        SystemPermission moved(std::move(*source));
        source.reset();  // a moved-from object does not undo the switch
        EXPECT_EQ(myIds().uid, triple(0, 0, 0));
        ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        moved.restorePermission();
        EXPECT_EQ(myIds().uid, triple(0, 10001, 0));
        EXPECT_EQ(myIds().groups, kOperatorGroups);  // the array was taken over
        EXPECT_EQ(moved.getRuid(), 0u);
        EXPECT_EQ(moved.getSgid(), 0u);
    });
}

// The trace file lives in /tmp/download; the fixture leaves it as it found it.
class SystemPermissionTrace : public ::testing::Test {
protected:
    static constexpr const char* kDir = "/tmp/download";
    static constexpr const char* kFile = "/tmp/download/sessionP.txt";

    void SetUp() override {
        m_createdDir = mkdir(kDir, 0755) == 0;
        std::ifstream existing(kFile);
        m_hadFile = static_cast<bool>(existing);
        if (m_hadFile) m_before = slurp();
    }
    void TearDown() override {
        if (m_hadFile) {
            std::ofstream(kFile, std::ios::trunc) << m_before;
        } else {
            std::remove(kFile);
        }
        if (m_createdDir) rmdir(kDir);
    }
    // What this test appended to the trace file.
    std::string appended() { return slurp().substr(m_before.size()); }

    static std::string slurp() {
        std::ifstream in(kFile);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    bool m_createdDir = false;
    bool m_hadFile = false;
    std::string m_before;
};

TEST_F(SystemPermissionTrace, PrintAppendsOneBlockPerCall) {
    TVC_REQUIRE_ROOT();
    inThread([this] {
        becomeThread(0, 10001, 0, kOperatorGroups);
        SystemPermission snapshot;
        snapshot.setRealPermissions();  // the trace directory belongs to root
        const std::string block =
            "m_euid 10001\nm_ruid 0\nm_saveuid 0\nm_egid 10001\nm_rgid 0\nm_savegid 0\n"
            "m_nbreGroup 2\ngrp:4201\ngrp:10001\n";
        testing::internal::CaptureStdout();
        snapshot.print();
        snapshot.print();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), block + "\n" + block + "\n");
        EXPECT_EQ(appended(), block + block);
    });
}

TEST_F(SystemPermissionTrace, SnapshotWithoutGroupsAndCurrentIds) {
    TVC_REQUIRE_ROOT();
    inThread([this] {
        becomeThread(0, 4294967294u, 0, {});
        SystemPermission snapshot;
        snapshot.setRealPermissions();
        testing::internal::CaptureStdout();
        snapshot.print();
        snapshot.printCurrentUids();
        snapshot.whoAmi();
        const std::string before =
            "m_euid 4294967294\nm_ruid 0\nm_saveuid 0\nm_egid 4294967294\nm_rgid 0\nm_savegid 0\nm_nbreGroup 0\n";
        const std::string now = "m_euid 0\nm_ruid 0\nm_saveuid 0\nm_egid 4294967294\nm_rgid 0\nm_savegid 0\nm_nbreGroup 0\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(), before + "\n" + now + "\n" + "ruid 0 euid 0 saveuid 0\n");
        EXPECT_EQ(appended(), before + now);
    });
}

TEST_F(SystemPermissionTrace, StandardOutputIsWrittenWhenTheTraceFileCannotBe) {
    TVC_REQUIRE_ROOT();
    inThread([this] {
        becomeThread(0, 10001, 0, {});
        SystemPermission snapshot;  // stays 10001: no write access to the root-owned directory
        testing::internal::CaptureStdout();
        snapshot.print();
        snapshot.whoAmi();
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("m_euid 10001\n", 0), 0u) << out;
        EXPECT_NE(out.find("\nruid 0 euid 10001 saveuid 0\n"), std::string::npos) << out;
        if (m_createdDir) {
            EXPECT_EQ(appended(), "");
        }
    });
}

}  // namespace
