// The profile catalogue: the built-in one, host catalogues and the process-wide tables.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>

#include "AccessFixture.h"
#include "sampledevice/SampleCatalogue.h"

using namespace usermanagement;
using systemutilities::LinuxUserSystem;
using tvc::test::printed;
using tvc::test::removeGroup;

namespace {

using CatalogueTest = tvc::test::AccessTest;

template <class Map>
std::string printedAll(const Map& map) {
    std::string text;
    for (const auto& entry : map) text += printed(entry.second);
    return text;
}

const std::string kNoProfile = "Profile:[nogroup] id[-4] gid[65534]\nGroups list\n";

TEST_F(CatalogueTest, BuiltInCatalogueIsBuiltOnFirstLookup) {
    EXPECT_EQ(catalogue().getProfile(1).m_name, "root");
    EXPECT_EQ(printedAll(catalogue().getProfiles(false)),
              "Profile:[www-data] id[-2] gid[33]\nGroups list\n"
              "Profile:[root] id[-1] gid[0]\nGroups list\n"
              "Profile:[root] id[1] gid[0]\nGroups list\n");
    EXPECT_TRUE(catalogue().getRoles().empty());
}

TEST_F(CatalogueTest, SharedNameOrGidResolvesToTheSmallestIdAndMissesToNogroup) {
    EXPECT_EQ(catalogue().getProfile("root").getId(), -1);
    EXPECT_EQ(catalogue().getProfile(0u).getId(), -1);
    EXPECT_EQ(catalogue().getProfile(1).getId(), 1);
    EXPECT_EQ(catalogue().getProfile("www-data").getId(), -2);
    EXPECT_EQ(catalogue().getProfile(33u).getId(), -2);

    for (const UmProfile& miss : {catalogue().getProfile("viewers"), catalogue().getProfile(7),
                                  catalogue().getProfile(10002u)})
        EXPECT_EQ(printed(miss), kNoProfile);
    for (const UmRole& miss : {catalogue().getRole(5), catalogue().getRole(5u), catalogue().getRole("role-log-read")})
        EXPECT_EQ(printed(miss), "role:[nogroup] id[61434] gid[65534]\n");
}

TEST_F(CatalogueTest, EveryLookupNeedsTheNogroupGroup) {
    removeGroup("nogroup");
    EXPECT_THROW(catalogue().getProfile(1), UMException);
    EXPECT_THROW(catalogue().getRole(1), UMException);
    UmProfile::enableException();
    EXPECT_EQ(catalogue().getProfile(1).m_name, "root");
    EXPECT_EQ(catalogue().getProfile(7).m_gid, UmGroup::kUnresolvedGid);
}

TEST_F(CatalogueTest, BuildFailureLeavesTheTablesEmpty) {
    catalogue().getProfiles(true);
    removeGroup("www-data");
    tvc::test::expectUmException([] { catalogue().buildProfiles(); }, 2,
                                 "www-data (group): POSIX Group not found", "");
    EXPECT_TRUE(ProfileDefinition::g_profiles.empty());
    EXPECT_TRUE(ProfileDefinition::m_init) << "m_init keeps its value";

    UmProfile::enableException();
    const auto profiles = catalogue().getProfiles(true);
    ASSERT_EQ(profiles.size(), 3u);
    EXPECT_EQ(profiles.at(-2).m_gid, UmGroup::kUnresolvedGid);
}

TEST_F(CatalogueTest, AddProfileNeverReplacesAndRolesAreLookedUpById) {
    catalogue().getProfiles(false);
    UmProfile viewers("viewers", 1), operators("operators", 5);
    viewers.add(UmRole("role-log-read", -1));
    operators.add(UmRole("role-user-manager", 4));
    ProfileDefinition::addProfile(viewers);
    ProfileDefinition::addProfile(operators);
    EXPECT_EQ(catalogue().getProfile(1).m_name, "root");
    EXPECT_EQ(catalogue().getProfile(5).m_name, "operators");
    EXPECT_EQ(catalogue().getRole(4).m_name, "role-log-read") << "the first role 4 stays";
    EXPECT_EQ(catalogue().getRole(4u).m_name, "role-log-read") << "an unsigned argument is a role id";
    EXPECT_EQ(catalogue().getRole(4104u).m_name, "nogroup");
}

TEST_F(CatalogueTest, OnlyRefreshRebuildsThroughTheInstalledCatalogue) {
    struct CountingCatalogue : ProfileDefinition {
        void buildProfiles() override {
            ++builds;
            ProfileDefinition::buildProfiles();
        }
        int builds = 0;
    } counting;
    counting.setProfileDefinition(counting);

    catalogue().getProfile("root");
    catalogue().getProfiles(false);
    catalogue().getRoles();
    EXPECT_EQ(counting.builds, 1);

    UmProfile extra("viewers", 9);
    ProfileDefinition::addProfile(extra);
    catalogue().getProfiles(true);
    catalogue().getRoles();
    EXPECT_EQ(counting.builds, 2);
    EXPECT_EQ(printed(catalogue().getProfile(9)), kNoProfile) << "a rebuild starts from empty tables";
}

// Each managed account must be in exactly the role and right groups its profile grants:
// otherwise rights checks and the group file would disagree.
TEST_F(CatalogueTest, SampleCatalogueMatchesTheDeviceGroupMemberships) {
    tvc::sample::SampleCatalogue sample;
    sample.setProfileDefinition(sample);
    for (const char* account : {"admin", "operator", "viewer", "tech", "guest"}) {
        SCOPED_TRACE(account);
        unsigned int profileGid = 0;
        std::vector<UmGroup> groups;
        ASSERT_TRUE(LinuxUserSystem::getUserIds(account, nullptr, &profileGid));
        ASSERT_TRUE(LinuxUserSystem::getGroups(account, groups));
        std::set<unsigned int> onDevice, granted;
        for (const UmGroup& group : groups)
            if (group.m_gid != profileGid) onDevice.insert(group.m_gid);

        UmProfile profile = catalogue().getProfile(profileGid);
        ASSERT_NE(profile.getId(), -4);
        profile.updateList();
        for (const auto& entry : profile.m_groupNames) granted.insert(entry.first);
        EXPECT_EQ(onDevice, granted);
    }
}

// Nothing clears the tables before a host's buildProfiles runs.
TEST_F(CatalogueTest, FailedHostRebuildKeepsThePreviousCatalogue) {
    tvc::sample::SampleCatalogue sample;
    sample.setProfileDefinition(sample);
    ASSERT_EQ(catalogue().getProfiles(false).size(), 6u);
    removeGroup("net-admin");
    EXPECT_THROW(catalogue().getProfiles(true), UMException);
    EXPECT_EQ(catalogue().getProfiles(false).size(), 6u);
    EXPECT_EQ(catalogue().getProfile("operators").getId(), 1);
}

}  // namespace
