// Password-file entries on the sample device's /etc/passwd (managed uids 10000-10004 all taken).
#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kPasswd = "/etc/passwd";

using PasswdEntries = FilesTest;

TEST_F(PasswdEntries, NewEntryIsAppendedLastWithTheFirstFreeUidAndReadBack) {
    definition.count = 8;  // 10005..10007 free
    const std::string before = readFile(kPasswd);
    unsigned int uid = 0;
    inPasswd([&](FileSystemUpdate& t) { uid = addEntryInPasswordFile(t, "newbie", 10002); });
    EXPECT_EQ(uid, 10005u);
    const std::string entry = "newbie:x:10005:10002:UI User:/home/admin:/bin/sh\n";
    EXPECT_EQ(readFile(kPasswd), before + entry);
    EXPECT_EQ(run("getent passwd newbie").output, entry);
    // The uid generator asks the system database, which now has 10005.
    inPasswd([&](FileSystemUpdate& t) { uid = addEntryInPasswordFile(t, "second", 10001); });
    EXPECT_EQ(uid, 10006u);
}

TEST_F(PasswdEntries, GenerateUidTakesTheFirstFreeIdOfTheRange) {
    EXPECT_EQ(generateUID(2001, 5), 2004u);  // 2001-2003 are service accounts
    EXPECT_EQ(generateUID(4294967294u, 1), 4294967294u);
    // A full range, an empty one, one that wraps past the largest id, and the "unknown" id.
    for (const auto& [base, count] : {std::pair{10000u, 5u}, {20000u, 0u}, {4294967290u, 20u}, {4294967295u, 1u}})
        expectFailure([&] { generateUID(base, count); }, typeid(UMException), UMError::MaxUsersReached,
                      "generateUID error, max uid reached");
}

TEST_F(PasswdEntries, UpdateReportsRenamesAndProfileChanges) {
    const std::string before = readFile(kPasswd), ownName = "viewer", newName = "watcher";
    LookUpdatePasswd same, profile, renamed;
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10002, &ownName, same); });
    EXPECT_FALSE(same.nameUpdated || same.profileUpdated);
    EXPECT_EQ(readFile(kPasswd), before);

    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10003, nullptr, profile); });
    EXPECT_TRUE(profile.profileUpdated);
    EXPECT_EQ(profile.oldGid, 10002u);
    EXPECT_FALSE(profile.nameUpdated);
    EXPECT_EQ(profile.oldName, "");
    EXPECT_EQ(lineOf(kPasswd, "viewer"), "viewer:x:10002:10003:Viewer:/home/admin:/bin/maintenance");

    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10002, 10003, &newName, renamed); });
    EXPECT_TRUE(renamed.nameUpdated);
    EXPECT_EQ(renamed.oldName, "viewer");
    EXPECT_FALSE(renamed.profileUpdated);
    const std::string oldLine = "viewer:x:10002:10002:Viewer:/home/admin:/bin/sh";
    EXPECT_EQ(readFile(kPasswd),
              std::string(before).replace(before.find(oldLine), oldLine.size(),
                                          "watcher:x:10002:10003:Viewer:/home/admin:/bin/maintenance"));
}

TEST_F(PasswdEntries, RemovalDropsOneEntryAndUnknownKeysCopyBothFilesUnchanged) {
    const Snapshot snapshot;
    const bool no = false;
    const std::string hash = "$6$x$y";
    LookUpdatePasswd passwdRecord;
    LookUpdateShadow shadowRecord;
    inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 12345, 10000, nullptr, passwdRecord); });
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 12345); });
    inShadow([&](FileSystemUpdate& t) {
        updateEntryInShadowFile(t, "nosuch", nullptr, &hash, {true}, &no, &no, shadowRecord);
    });
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "nosuch"); });
    snapshot.expectUnchanged();
    EXPECT_FALSE(passwdRecord.nameUpdated || passwdRecord.profileUpdated);
    EXPECT_TRUE(shadowRecord.activation == 2 && !shadowRecord.passwordUpdated && !shadowRecord.passwordExpired);

    const std::string techLine = lineOf(kPasswd, "tech") + "\n", viewerLine = lineOf("/etc/shadow", "viewer") + "\n";
    std::string passwd = readFile(kPasswd), shadow = readFile("/etc/shadow");
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 10003); });
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "viewer"); });
    EXPECT_EQ(readFile(kPasswd), passwd.erase(passwd.find(techLine), techLine.size()));
    EXPECT_EQ(readFile("/etc/shadow"), shadow.erase(shadow.find(viewerLine), viewerLine.size()));
}

TEST(PasswdMembership, CountIsTheListLengthNotTheMatchPosition) {
    int count = -1;
    char admin[] = "admin", viewer[] = "viewer", tech[] = "tech";
    char* three[] = {admin, viewer, tech, nullptr};
    char* none[] = {nullptr};
    EXPECT_TRUE(isPresentInListName(three, "admin", count));
    EXPECT_EQ(count, 3);
    EXPECT_FALSE(isPresentInListName(three, "Admin", count));
    EXPECT_FALSE(isPresentInListName(none, "admin", count));
    EXPECT_EQ(count, 0);
}

}  // namespace
