// An account's groups as UmGroup values (LinuxUserSystem::getGroups) on the sample device.
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

Names namesOf(const std::vector<UmGroup>& groups) {
    Names names;
    for (const UmGroup& group : groups) names.push_back(group.m_name);
    return names;
}

class GroupListTest : public tvc::test::SandboxTest {};

TEST_F(GroupListTest, ProfileGroupFirstThenMembershipsInFileOrder) {
    std::vector<UmGroup> groups{UmGroup("users")};
    ASSERT_TRUE(LinuxUserSystem::getGroups(10000u, groups));
    EXPECT_EQ(namesOf(groups), (Names{"users", "administrators", "role-user-manager", "role-user-configure-self",
                                      "role-network-configure", "role-log-read", "net-admin", "log-read"}));
    EXPECT_EQ(groups.at(1).m_gid, 10000u);

    // Appends again rather than replacing.
    ASSERT_TRUE(LinuxUserSystem::getGroups("guest", groups));
    ASSERT_EQ(groups.size(), 12u);
    const Names all = namesOf(groups);
    EXPECT_EQ(Names(all.begin() + 8, all.end()),
              (Names{"viewers", "role-user-configure-self", "role-log-read", "log-read"}));
}

TEST_F(GroupListTest, SupplementaryProfileGroupIsTheBase) {
    // plainuser's primary group (users) is not a profile group, and it is not listed as a
    // member of users, so users is not reported.
    std::vector<UmGroup> byName, byUid;
    ASSERT_TRUE(LinuxUserSystem::getGroups("plainuser", byName));
    ASSERT_TRUE(LinuxUserSystem::getGroups(2002u, byUid));
    EXPECT_EQ(namesOf(byName), (Names{"viewers", "role-user-manager"}));
    EXPECT_EQ(namesOf(byUid), namesOf(byName));

    std::vector<UmGroup> backup;
    ASSERT_TRUE(LinuxUserSystem::getGroups("svc-backup", backup));
    EXPECT_EQ(namesOf(backup), (Names{"users", "log-read"}));
}

TEST_F(GroupListTest, GroupIdsWithoutAnEntryAreSkipped) {
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

TEST_F(GroupListTest, UnknownAccountLeavesTheListAlone) {
    std::vector<UmGroup> groups{UmGroup("users")};
    EXPECT_FALSE(LinuxUserSystem::getGroups(4242u, groups));
    EXPECT_FALSE(LinuxUserSystem::getGroups("no-such-account", groups));
    EXPECT_FALSE(LinuxUserSystem::getGroups(static_cast<const char*>(nullptr), groups));
    EXPECT_EQ(namesOf(groups), (Names{"users"}));
}

}  // namespace
