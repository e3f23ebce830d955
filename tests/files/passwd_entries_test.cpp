// Password-file entries on the sample device's /etc/passwd (managed uids 10000-10004 all taken).
#include <gtest/gtest.h>
#include <pwd.h>

#include <string>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmProfile.h>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kPasswd = "/etc/passwd";
constexpr const char* kTmp = "/etc/tmppassd";

using PasswdEntries = FilesTest;

void inPasswd(const std::function<void(FileSystemUpdate&)>& body) { rewrite(kPasswd, kTmp, true, body); }

TEST_F(PasswdEntries, NewEntryIsAppendedLastWithTheFirstFreeUid) {
    definition.count = 8;  // 10005..10007 free
    const std::string before = readFile(kPasswd);
    unsigned int uid = 0;
    inPasswd([&](FileSystemUpdate& t) { uid = addEntryInPasswordFile(t, "newbie", 10002); });
    EXPECT_EQ(uid, 10005u);
    EXPECT_EQ(readFile(kPasswd), before + "newbie:x:10005:10002:UI User:/home/admin:/bin/sh\n");

    // The system reads the new entry back; the next addition skips the id now in use.
    const struct passwd* entry = getpwnam("newbie");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pw_uid, 10005u);
    EXPECT_STREQ(entry->pw_dir, "/home/admin");
    inPasswd([&](FileSystemUpdate& t) { uid = addEntryInPasswordFile(t, "second", 10001); });
    EXPECT_EQ(uid, 10006u);
}

TEST_F(PasswdEntries, GenerateUidTakesTheFirstGapAndFailsOnAFullRange) {
    EXPECT_EQ(generateUID(2001, 5), 2004u);  // 2001-2003 are service accounts
    expectThrow<UMException>([] { generateUID(10000, 5); }, 6, "generateUID error, max uid reached");
    expectThrow<UMException>([] { generateUID(20000, 0); }, 6);
    // A range wrapping past the largest id offers nothing, and never the "unknown" id.
    expectThrow<UMException>([] { generateUID(4294967290u, 20); }, 6);
    EXPECT_EQ(generateUID(4294967294u, 1), 4294967294u);
    expectThrow<UMException>([] { generateUID(4294967295u, 1); }, 6);
}

TEST_F(PasswdEntries, FailedAdditionsLeaveTheFileAsItWas) {
    const Snapshot snapshot = Snapshot::take({kPasswd}, {kTmp});
    expectThrow<UMException>([] { inPasswd([](FileSystemUpdate& t) { addEntryInPasswordFile(t, "viewer", 10002); }); },
                             0, "viewer :user already exists");
    // Default range 10000-10004 is full.
    expectThrow<UMException>([] { inPasswd([](FileSystemUpdate& t) { addEntryInPasswordFile(t, "newbie", 10002); }); },
                             6);
    snapshot.expectUnchanged();
}

TEST_F(PasswdEntries, NamesThatWouldSplitALineAreRefusedAndNothingOfThemIsWritten) {
    definition.count = 6;
    const Snapshot snapshot = Snapshot::take({kPasswd}, {kTmp});
    for (const std::string name : {"evil:0:0", "evil\nroot2"}) {
        FileSystemUpdate transaction(kPasswd, kTmp, true);
        transaction.prepareSystemFiles();
        expectThrow<UMSystemErrorException>([&] { addEntryInPasswordFile(transaction, name, 10002); }, 10,
                                            "addEntryInPasswordFile error (new entry) in writing to /etc/tmppassd");
        fflush(transaction.m_tmpFile);
        EXPECT_EQ(readFile(kTmp), snapshot.files.at(kPasswd)) << "a partial entry reached the temporary file";
    }
    const std::string newName = "operator:x:0:0::/root:/bin/sh\nx";
    LookUpdatePasswd record;
    expectThrow<UMSystemErrorException>(
        [&] { inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10001, 10001, &newName, record); }); },
        10, "updateEntryInPasswordFile error in writing to /etc/tmppassd");
    snapshot.expectUnchanged();
}

TEST_F(PasswdEntries, RenameToANameInUseFailsWhereverThatEntryIs) {
    const Snapshot snapshot = Snapshot::take({kPasswd}, {kTmp});
    for (const std::string taken : {"admin", "guest"}) {  // before and after operator's line
        LookUpdatePasswd record;
        expectThrow<UMException>(
            [&] { inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10001, 10001, &taken, record); }); },
            0, "updateEntryInPasswordFile error, update username with a name already used:" + taken);
    }
    snapshot.expectUnchanged();
}

TEST_F(PasswdEntries, UpdateReportsRenamesAndProfileChanges) {
    definition.shells[10003] = "/bin/maintenance";
    const std::string before = readFile(kPasswd);

    LookUpdatePasswd same;
    const std::string ownName = "viewer";
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10002, &ownName, same); });
    EXPECT_FALSE(same.nameUpdated);
    EXPECT_FALSE(same.profileUpdated);
    EXPECT_EQ(readFile(kPasswd), before);

    LookUpdatePasswd profile;
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10003, nullptr, profile); });
    EXPECT_TRUE(profile.profileUpdated);
    EXPECT_EQ(profile.oldGid, 10002u);
    EXPECT_FALSE(profile.nameUpdated);
    EXPECT_EQ(profile.oldName, "");
    EXPECT_EQ(lineOf(kPasswd, "viewer"), "viewer:x:10002:10003:Viewer:/home/admin:/bin/maintenance");

    LookUpdatePasswd renamed;
    const std::string newName = "watcher";
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10003, &newName, renamed); });
    EXPECT_TRUE(renamed.nameUpdated);
    EXPECT_EQ(renamed.oldName, "viewer");
    EXPECT_FALSE(renamed.profileUpdated);
    EXPECT_EQ(lineOf(kPasswd, "watcher"), "watcher:x:10002:10003:Viewer:/home/admin:/bin/maintenance");
    EXPECT_EQ(lines(kPasswd).size(), 12u);
}

TEST_F(PasswdEntries, UnknownUidsCopyTheFileUnchanged) {
    const std::string before = readFile(kPasswd);
    LookUpdatePasswd record;
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 12345, 10000, nullptr, record); });
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 12345); });
    EXPECT_EQ(readFile(kPasswd), before);
    EXPECT_FALSE(record.nameUpdated || record.profileUpdated);

    const std::string techLine = lineOf(kPasswd, "tech") + "\n";
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 10003); });
    std::string expected = before;
    expected.erase(expected.find(techLine), techLine.size());
    EXPECT_EQ(readFile(kPasswd), expected);
}

TEST(PasswdMembership, ListsAndProfiles) {
    int count = -1;
    char admin[] = "admin", viewer[] = "viewer", tech[] = "tech";
    char* three[] = {admin, viewer, tech, nullptr};
    EXPECT_TRUE(isPresentInListName(three, "admin", count));
    EXPECT_EQ(count, 3);
    EXPECT_FALSE(isPresentInListName(three, "Admin", count));
    EXPECT_EQ(count, 3);
    char* none[] = {nullptr};
    EXPECT_FALSE(isPresentInListName(none, "admin", count));
    EXPECT_EQ(count, 0);
}

TEST_F(PasswdEntries, ProfileGrantsGroupsThroughItsRoles) {
    UmRole network("role-network-configure", 3);
    network.add(UmGroup("net-admin"));
    UmProfile operators("operators", 2);
    operators.add(network);
    EXPECT_TRUE(isPresentInGroups("net-admin", operators));
    EXPECT_TRUE(isPresentInGroups("role-network-configure", operators));
    EXPECT_FALSE(isPresentInGroups("log-read", operators));
    EXPECT_FALSE(isPresentInGroups("operators", operators));  // its own group does not count
}

}  // namespace
