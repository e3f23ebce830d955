// The transaction itself: lock ownership, temporary-file lifecycle, owner and mode of the
// installed file, and the two ways of installing it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>

#include "FilesTestSupport.h"

using namespace tvc::test;
using usermanagement::FileSystemUpdate;
using usermanagement::UMSystemErrorException;

namespace {

constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kShadowTmp = "/etc/tmpshadow";

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

using Transaction = FilesTest;

TEST_F(Transaction, SecondLockingTransactionFailsAndLockFreeOnesNeitherTakeNorRelease) {
    {
        FileSystemUpdate holder(kShadow, kShadowTmp, true);
        expectThrow<UMSystemErrorException>([] { FileSystemUpdate second("/etc/passwd", "/etc/tmppassd", true); }, 11,
                                            "FileSystemUpdate:password files locked (/etc/passwd)");
        // A lock-free transaction built and destroyed meanwhile must not release the holder's lock.
        { FileSystemUpdate follower("/etc/passwd", "/etc/tmppassd", false); }
        expectThrow<UMSystemErrorException>([] { FileSystemUpdate third("/etc/group", "/etc/tmpgroup", true); }, 11);
    }
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Transaction, DestroyingAnUnpreparedTransactionRemovesAStaleTemporaryFile) {
    writeFile(kShadowTmp, "left over by a crash\n");
    { FileSystemUpdate transaction(kShadow, kShadowTmp, true); }
    EXPECT_FALSE(exists(kShadowTmp));
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Transaction, RenameKeepsOwnerGroupAndModeOfTheLiveFile) {
    const struct stat before = statOf(kShadow);
    ASSERT_EQ(before.st_gid, 42u);  // the sample device's shadow is root:shadow 0640
    const std::string text = readFile(kShadow);
    rewrite(kShadow, kShadowTmp, true, [&](FileSystemUpdate& t) {
        // Created 0600 under the mask, then given the live file's owner and mode.
        const struct stat tmp = statOf(kShadowTmp);
        EXPECT_EQ(tmp.st_mode & 07777, before.st_mode & 07777);
        EXPECT_EQ(tmp.st_gid, before.st_gid);
        ASSERT_GE(fputs(text.c_str(), t.m_tmpFile), 0);
    });
    const struct stat after = statOf(kShadow);
    EXPECT_NE(after.st_ino, before.st_ino) << "the file was not replaced";
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(after.st_mode & 07777, before.st_mode & 07777);
    EXPECT_EQ(readFile(kShadow), text);
    EXPECT_FALSE(exists(kShadowTmp));
}

TEST_F(Transaction, WithoutRootTheDefaultUpdateCommandFailsAndNothingIsInstalled) {
    definition.root = false;
    const Snapshot snapshot = Snapshot::take({kShadow}, {kShadowTmp});
    try {
        FileSystemUpdate transaction(kShadow, kShadowTmp, true);
        transaction.prepareSystemFiles();
        EXPECT_EQ(statOf(kShadowTmp).st_mode & 07777, 0600u) << "left 0600 for the update command";
        fputs("x:y\n", transaction.m_tmpFile);
        transaction.finalyzeSystemFiles();
        ADD_FAILURE() << "the update command \"false \" succeeded";
    } catch (UMSystemErrorException& e) {
        EXPECT_EQ(e.getErrorId(), 13);
        // "false /etc/tmpshadow /etc/shadow" exits 1: wait status 256.
        EXPECT_EQ(std::string(e.what()).rfind("Script update error 256 of:/etc/tmpshadow to /etc/shadow ", 0), 0u)
            << e.what();
    }
    snapshot.expectUnchanged();
}

TEST_F(Transaction, WithoutRootAWorkingUpdateCommandInstallsTheFile) {
    definition.root = false;
    definition.script = "cp ";
    rewrite(kShadow, kShadowTmp, true, [](FileSystemUpdate& t) { fputs("only:entry\n", t.m_tmpFile); });
    EXPECT_EQ(readFile(kShadow), "only:entry\n");
    EXPECT_FALSE(exists(kShadowTmp)) << "the command copied; the transaction removes the temporary file";
}

TEST_F(Transaction, MissingFilesNameThemselvesAndLeaveNoTemporaryFile) {
    expectThrow<UMSystemErrorException>(
        [] { rewrite("/etc/no-such-file", kShadowTmp, true, [](FileSystemUpdate&) {}); }, 13,
        "fopen /etc/no-such-file prepareSystemFiles");
    expectThrow<UMSystemErrorException>(
        [] {
            FileSystemUpdate transaction(kShadow, kShadowTmp, "/etc/shadow.orig", true);
            transaction.prepareSystemFiles();
        },
        13, "fopen /etc/shadow.orig prepareSystemFiles");
    expectThrow<UMSystemErrorException>([] { rewrite(kShadow, "/etc/no-dir/tmp", true, [](FileSystemUpdate&) {}); }, 13,
                                        "fopen /etc/no-dir/tmp prepareSystemFiles");
    EXPECT_FALSE(exists(kShadowTmp));
    EXPECT_TRUE(lockIsFree());
}

TEST_F(Transaction, ReferenceCopyIsOpenedForReading) {
    writeFile("/etc/shadow.orig", "ref:copy\n");
    FileSystemUpdate transaction(kShadow, kShadowTmp, "/etc/shadow.orig", false);
    transaction.prepareSystemFiles();
    ASSERT_NE(transaction.m_origFile, nullptr);
    char line[32] = {};
    ASSERT_NE(fgets(line, sizeof line, transaction.m_origFile), nullptr);
    EXPECT_STREQ(line, "ref:copy\n");
    transaction.finalyzeSystemFiles();
    EXPECT_EQ(transaction.m_origFile, nullptr);
    EXPECT_EQ(transaction.m_file, nullptr);
    EXPECT_EQ(transaction.m_tmpFile, nullptr);
}

}  // namespace
