// The transaction itself: lock ownership, the temporary file's life, owner and mode of the
// installed file, and the two ways of installing it.
#include <cstdio>

#include "FilesTestSupport.h"

using namespace tvc::test;
using usermanagement::FileSystemUpdate;
using usermanagement::UMSystemErrorException;

namespace {

constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

using Transaction = FilesTest;

TEST_F(Transaction, LockIsTakenOnceAndStaleTemporaryFilesGo) {
    writeFile(kTmp, "left over by a crash\n");
    {
        FileSystemUpdate holder(kShadow, kTmp, true);
        expectFailure([] { FileSystemUpdate second("/etc/passwd", "/etc/tmppassd", true); },
                      typeid(UMSystemErrorException), usermanagement::UMSystemError::FilesLocked,
                      "FileSystemUpdate:password files locked (/etc/passwd)");
        // A lock-free transaction must not release the holder's lock.
        { FileSystemUpdate follower("/etc/passwd", "/etc/tmppassd", false); }
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_FALSE(exists(kTmp)) << "an unprepared transaction removes a stale temporary file";
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Transaction, RenameKeepsOwnerGroupAndModeAndTheReferenceCopyIsOnlyRead) {
    writeFile("/etc/shadow.orig", "ref:copy\n");
    const struct stat before = statOf(kShadow);
    ASSERT_EQ(before.st_gid, 42u);  // root:shadow 0640 on the sample device
    const std::string text = readFile(kShadow) + "new:entry\n";
    {
        FileSystemUpdate transaction(kShadow, kTmp, "/etc/shadow.orig", false);
        transaction.prepareSystemFiles();
        char line[32] = {};
        ASSERT_NE(std::fgets(line, sizeof line, transaction.m_origFile), nullptr);
        EXPECT_STREQ(line, "ref:copy\n");
        std::fputs(text.c_str(), transaction.m_tmpFile);
        transaction.finalyzeSystemFiles();
    }
    const struct stat after = statOf(kShadow);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(after.st_mode & 07777, before.st_mode & 07777);
    EXPECT_EQ(readFile(kShadow), text);
    EXPECT_EQ(readFile("/etc/shadow.orig"), "ref:copy\n");
    EXPECT_FALSE(exists(kTmp));
}

TEST_F(Transaction, WithoutRootTheUpdateCommandInstallsTheFile) {
    definition.root = false;
    const Snapshot snapshot({kShadow}, {kTmp});
    // The default command "false " fails: "false /etc/tmpshadow /etc/shadow" exits 1.  The
    // temporary file is 0600 whatever the creation mask, for the command to install.
    const mode_t mask = umask(0);
    expectFailure([] { inShadow([](FileSystemUpdate&) { EXPECT_EQ(statOf(kTmp).st_mode & 07777, 0600u); }); },
                  typeid(UMSystemErrorException), usermanagement::UMSystemError::FileTransaction,
                  "Script update error 256 of:/etc/tmpshadow to /etc/shadow ", Match::Start);
    umask(mask);
    snapshot.expectUnchanged();

    definition.script = "cp ";
    inShadow([](FileSystemUpdate& t) { std::fputs("only:entry\n", t.m_tmpFile); });
    EXPECT_EQ(readFile(kShadow), "only:entry\n");
    EXPECT_FALSE(exists(kTmp));
}

}  // namespace
