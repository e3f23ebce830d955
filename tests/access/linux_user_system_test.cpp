// Account and group lookups against the sample device's account database, including the rule
// that an account's profile gid is its primary group when in the profile range, else its first
// supplementary profile group.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/UmGroup.h>

#include "support/Sandbox.h"

using systemutilities::LinuxUserSystem;
using usermanagement::UmGroup;

namespace {

using Names = std::vector<std::string>;
using LinuxUserSystemTest = tvc::test::SandboxTest;

Names namesOf(const std::vector<UmGroup>& groups) {
    Names names;
    for (const UmGroup& group : groups) names.push_back(group.m_name);
    return names;
}

TEST_F(LinuxUserSystemTest, ProfileGidOfAnAccount) {
    struct Case {
        const char* account;
        unsigned int uid, profileGid;
    };
    // plainuser and svc-web: primary group 100, so the first profile group they are listed in
    // (plainuser is in role group 4101 before it); sysdaemon and root: no profile group at all.
    for (const Case& c : {Case{"admin", 10000, 10000}, Case{"guest", 10004, 10002}, Case{"plainuser", 2002, 10002},
                          Case{"svc-web", 2001, 10002}, Case{"sysdaemon", 998, 998}, Case{"root", 0, 0}}) {
        unsigned int uid = 1, gid = 1, gidByUid = 1;
        std::string name;
        ASSERT_TRUE(LinuxUserSystem::getUserIds(c.account, &uid, &gid)) << c.account;
        ASSERT_TRUE(LinuxUserSystem::getUserName(c.uid, name, gidByUid)) << c.account;
        EXPECT_EQ(uid, c.uid) << c.account;
        EXPECT_EQ(gid, c.profileGid) << c.account;
        EXPECT_EQ(name, c.account);
        EXPECT_EQ(gidByUid, c.profileGid) << c.account;
    }
}

TEST_F(LinuxUserSystemTest, UnknownOrNullLeavesOutputsAlone) {
    unsigned int uid = 7, gid = 8;
    std::string name = "kept";
    std::vector<UmGroup> groups{UmGroup("users")};
    EXPECT_FALSE(LinuxUserSystem::getUserIds(nullptr, &uid, &gid));
    EXPECT_FALSE(LinuxUserSystem::getUserIds("no-such-account", &uid, &gid));
    EXPECT_FALSE(LinuxUserSystem::getUserName(4242, name, gid));
    EXPECT_FALSE(LinuxUserSystem::getGroupGid(nullptr, gid));
    EXPECT_FALSE(LinuxUserSystem::getGroupGid("no-such-group", gid));
    EXPECT_FALSE(LinuxUserSystem::getGroupName(4242, name));
    EXPECT_FALSE(LinuxUserSystem::getGroups(4242u, groups));
    EXPECT_FALSE(LinuxUserSystem::getGroups("no-such-account", groups));
    EXPECT_FALSE(LinuxUserSystem::getGroups(static_cast<const char*>(nullptr), groups));
    EXPECT_EQ(uid, 7u);
    EXPECT_EQ(gid, 8u);
    EXPECT_EQ(name, "kept");
    EXPECT_EQ(namesOf(groups), (Names{"users"}));
}

TEST_F(LinuxUserSystemTest, GroupsStartWithTheProfileGroupAndAppendInFileOrder) {
    std::vector<UmGroup> groups{UmGroup("users")};
    ASSERT_TRUE(LinuxUserSystem::getGroups(10000u, groups));
    ASSERT_TRUE(LinuxUserSystem::getGroups("guest", groups));
    EXPECT_EQ(namesOf(groups), (Names{"users", "administrators", "role-user-manager", "role-user-configure-self",
                                      "role-network-configure", "role-log-read", "net-admin", "log-read", "viewers",
                                      "role-user-configure-self", "role-log-read", "log-read"}));
    EXPECT_EQ(groups.at(1).m_gid, 10000u);

    // plainuser's primary group (users) is no profile group and does not list it: not reported.
    std::vector<UmGroup> byName, byUid, backup;
    ASSERT_TRUE(LinuxUserSystem::getGroups("plainuser", byName));
    ASSERT_TRUE(LinuxUserSystem::getGroups(2002u, byUid));
    ASSERT_TRUE(LinuxUserSystem::getGroups("svc-backup", backup));
    EXPECT_EQ(namesOf(byName), (Names{"viewers", "role-user-manager"}));
    EXPECT_EQ(namesOf(byUid), namesOf(byName));
    EXPECT_EQ(namesOf(backup), (Names{"users", "log-read"}));
}

TEST_F(LinuxUserSystemTest, GroupIdsWithoutAnEntryAreSkipped) {
    tvc::test::writeFile("/etc/passwd",
                         tvc::test::readFile("/etc/passwd") + "ghost:x:3000:3333::/nonexistent:/bin/sh\n");
    std::string groupFile = tvc::test::readFile("/etc/group");
    const std::string logRead = "log-read:x:4201:";
    groupFile.insert(groupFile.find(logRead) + logRead.size(), "ghost,");
    tvc::test::writeFile("/etc/group", groupFile);

    std::vector<UmGroup> groups;
    ASSERT_TRUE(LinuxUserSystem::getGroups(3000u, groups));
    EXPECT_EQ(namesOf(groups), (Names{"log-read"}));
}

// The files backend answers "does not fit" for any line it parses on the way, so a fixed buffer
// would make every entry after a long line look missing.
TEST_F(LinuxUserSystemTest, EntriesBehindAVeryLongLineAreFound) {
    std::string crowd = "crowd:x:4300:";
    for (int i = 0; i < 5000; ++i) crowd += "member" + std::to_string(i) + ",";
    tvc::test::writeFile("/etc/group", crowd + "viewer\n" + tvc::test::readFile("/etc/group"));
    tvc::test::writeFile("/etc/passwd", "long:x:3100:4300:" + std::string(100000, 'g') + ":/nonexistent:/bin/sh\n" +
                                            tvc::test::readFile("/etc/passwd"));
    const std::string missing = "not found";
    const auto gidOf = [&](const char* group) {
        unsigned int gid = 0;
        return LinuxUserSystem::getGroupGid(group, gid) ? std::to_string(gid) : missing;
    };
    const auto groupNameOf = [&](unsigned int gid) {
        std::string name;
        return LinuxUserSystem::getGroupName(gid, name) ? name : missing;
    };
    const auto idsOf = [&](const char* account) {
        unsigned int uid = 0, gid = 0;
        if (!LinuxUserSystem::getUserIds(account, &uid, &gid)) return missing;
        return std::to_string(uid) + "/" + std::to_string(gid);
    };
    const auto userNameOf = [&](unsigned int uid) {
        std::string name;
        unsigned int gid = 0;
        return LinuxUserSystem::getUserName(uid, name, gid) ? name : missing;
    };
    const auto groupsOf = [&](auto account) {
        std::vector<UmGroup> groups;
        return LinuxUserSystem::getGroups(account, groups) ? testing::PrintToString(namesOf(groups)) : missing;
    };
    const struct {
        std::string got, expected;
    } cases[] = {
        {gidOf("viewers"), "10002"},
        {gidOf("crowd"), "4300"},
        {groupNameOf(10003), "maintainers"},
        {groupNameOf(4300), "crowd"},
        {idsOf("viewer"), "10002/10002"},
        {idsOf("long"), "3100/4300"},
        {userNameOf(10003), "tech"},
        {userNameOf(3100), "long"},
        {groupsOf("viewer"),
         R"({ "viewers", "crowd", "role-user-configure-self", "role-log-read", "log-read" })"},
        {groupsOf(3100u), R"({ "crowd" })"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.expected);
}

TEST(ProfileRange, Bounds) {
    EXPECT_FALSE(LinuxUserSystem::isProfileGid(9999));
    EXPECT_TRUE(LinuxUserSystem::isProfileGid(10000));
    EXPECT_TRUE(LinuxUserSystem::isProfileGid(19999));
    EXPECT_FALSE(LinuxUserSystem::isProfileGid(20000));
}

}  // namespace
