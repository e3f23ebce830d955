// Account and group lookups against the sample device's account database.
#include <gtest/gtest.h>

#include <string>

#include <systemutilities/LinuxUserSystem.h>

#include "support/Sandbox.h"

using systemutilities::LinuxUserSystem;

namespace {

class LinuxUserSystemTest : public tvc::test::SandboxTest {};

TEST_F(LinuxUserSystemTest, PrimaryGroupInRangeIsTheProfile) {
    unsigned int uid = 1, gid = 1;
    ASSERT_TRUE(LinuxUserSystem::getUserIds("admin", &uid, &gid));
    EXPECT_EQ(uid, 10000u);
    EXPECT_EQ(gid, 10000u);

    std::string name;
    unsigned int byUid = 0;
    ASSERT_TRUE(LinuxUserSystem::getUserName(10002, name, byUid));
    EXPECT_EQ(name, "viewer");
    EXPECT_EQ(byUid, 10002u);
}

TEST_F(LinuxUserSystemTest, FirstSupplementaryProfileGroupWhenPrimaryIsOutside) {
    // plainuser: primary group 100, listed in a role group (4101) before a profile group (10002).
    unsigned int gid = 0;
    ASSERT_TRUE(LinuxUserSystem::getUserIds("plainuser", nullptr, &gid));
    EXPECT_EQ(gid, 10002u);

    std::string name;
    ASSERT_TRUE(LinuxUserSystem::getUserName(2001, name, gid));
    EXPECT_EQ(name, "svc-web");
    EXPECT_EQ(gid, 10002u);
}

TEST_F(LinuxUserSystemTest, NoProfileGroupKeepsThePrimaryGroup) {
    unsigned int uid = 0, gid = 0;
    ASSERT_TRUE(LinuxUserSystem::getUserIds("sysdaemon", &uid, &gid));
    EXPECT_EQ(uid, 998u);
    EXPECT_FALSE(LinuxUserSystem::isProfileGid(gid));
    ASSERT_TRUE(LinuxUserSystem::getUserIds("root", &uid, &gid));
    EXPECT_EQ(uid, 0u);
    EXPECT_EQ(gid, 0u);
}

TEST_F(LinuxUserSystemTest, UnknownOrNullLeavesOutputsAlone) {
    unsigned int uid = 7, gid = 8;
    EXPECT_FALSE(LinuxUserSystem::getUserIds(nullptr, &uid, &gid));
    EXPECT_FALSE(LinuxUserSystem::getUserIds("no-such-account", &uid, &gid));
    EXPECT_EQ(uid, 7u);
    EXPECT_EQ(gid, 8u);

    std::string name = "kept";
    EXPECT_FALSE(LinuxUserSystem::getUserName(4242, name, gid));
    EXPECT_EQ(name, "kept");
    EXPECT_FALSE(LinuxUserSystem::getGroupGid(nullptr, gid));
    EXPECT_FALSE(LinuxUserSystem::getGroupGid("no-such-group", gid));
    EXPECT_FALSE(LinuxUserSystem::getGroupName(4242, name));
    EXPECT_EQ(gid, 8u);
    EXPECT_EQ(name, "kept");
}

TEST_F(LinuxUserSystemTest, GroupsByNameAndId) {
    unsigned int gid = 0;
    ASSERT_TRUE(LinuxUserSystem::getGroupGid("viewers", gid));
    EXPECT_EQ(gid, 10002u);
    std::string name;
    ASSERT_TRUE(LinuxUserSystem::getGroupName(4101, name));
    EXPECT_EQ(name, "role-user-manager");
}

TEST(ProfileRange, Bounds) {
    EXPECT_FALSE(LinuxUserSystem::isProfileGid(9999));
    EXPECT_TRUE(LinuxUserSystem::isProfileGid(10000));
    EXPECT_TRUE(LinuxUserSystem::isProfileGid(19999));
    EXPECT_FALSE(LinuxUserSystem::isProfileGid(20000));
}

}  // namespace
