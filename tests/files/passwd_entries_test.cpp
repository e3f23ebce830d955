// Password-file entries on the sample device's /etc/passwd (managed uids 10000-10004 all taken).
#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kPasswd = "/etc/passwd";

using PasswdEntries = FilesTest;

TEST_F(PasswdEntries, GenerateUidTakesTheFirstFreeIdOfTheRange) {
    EXPECT_EQ(generateUID(2001, 5), 2004u);  // 2001-2003 are service accounts
    EXPECT_EQ(generateUID(4294967294u, 1), 4294967294u);
    // A full range, an empty one, one that wraps past the largest id, and the "unknown" id.
    for (const auto& [base, count] : {std::pair{10000u, 5u}, {20000u, 0u}, {4294967290u, 20u}, {4294967295u, 1u}})
        expectFailure([&] { generateUID(base, count); }, typeid(UMException), UMError::MaxUsersReached,
                      "generateUID error, max uid reached");
}

// The rows run one after the other on the same file.
TEST_F(PasswdEntries, UpdateRenamesAndChangesTheProfileAndReportsWhatChanged) {
    const std::string before = readFile(kPasswd), viewer = lineOf(kPasswd, "viewer"), own = "viewer", other = "watcher";
    const std::string maintenance = ":x:10002:10003:Viewer:/home/admin:/bin/maintenance";
    const struct {
        unsigned int uid, gid;
        const std::string* name;
        std::string line;     // viewer's line afterwards
        std::string oldName;  // reported for a rename
        unsigned int oldGid;  // reported for a profile change
    } cases[] = {
        {10002, 10002, &own, viewer, "", 0},
        {12345, 10000, nullptr, viewer, "", 0},  // an unknown uid copies the file unchanged
        {10002, 10003, nullptr, "viewer" + maintenance, "", 10002},
        {10002, 10003, &other, "watcher" + maintenance, "viewer", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        LookUpdatePasswd record;
        inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, c.uid, c.gid, c.name, record); });
        EXPECT_EQ(readFile(kPasswd), std::string(before).replace(before.find(viewer), viewer.size(), c.line));
        EXPECT_EQ(record.nameUpdated, !c.oldName.empty());
        EXPECT_EQ(record.oldName, c.oldName);
        EXPECT_EQ(record.profileUpdated, c.oldGid != 0);
        EXPECT_EQ(record.oldGid, c.oldGid);
    }
}

// An unknown key copies the files unchanged.
TEST_F(PasswdEntries, RemovalDropsExactlyTheOneEntryInBothFiles) {
    for (const auto& c : {std::pair{12345u, "nosuch"}, {10003u, "tech"}}) {
        inPasswd([&](FileSystemUpdate& t) { removeEntryInPasswordFile(t, c.first); });
        inShadow([&](FileSystemUpdate& t) { removeEntryInShadowFile(t, c.second); });
    }
    const std::string passwd = readFile(kPasswd), shadow = readFile("/etc/shadow");
    restoreSampleDevice();
    removeEntry(kPasswd, "tech");
    removeEntry("/etc/shadow", "tech");
    EXPECT_EQ(passwd, readFile(kPasswd));
    EXPECT_EQ(shadow, readFile("/etc/shadow"));
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
