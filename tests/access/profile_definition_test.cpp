// The profile catalogue: the built-in one, host catalogues and the process-wide tables.
#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>

#include "sampledevice/SampleCatalogue.h"
#include "support/Sandbox.h"

using systemutilities::LinuxUserSystem;
using usermanagement::ProfileDefinition;
using usermanagement::UMException;
using usermanagement::UmGroup;
using usermanagement::UmProfile;
using usermanagement::UmRole;

namespace {

// Empties the shared tables so that every test starts from an unbuilt catalogue.
void resetTables() {
    std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
    ProfileDefinition::g_profiles.clear();
    ProfileDefinition::g_roles.clear();
    ProfileDefinition::m_init = false;
}

// Drops the line of group `name` from /etc/group.
void removeGroup(const std::string& name) {
    const std::string text = tvc::test::readFile("/etc/group");
    const std::string key = "\n" + name + ":";
    const std::size_t at = ("\n" + text).find(key);
    ASSERT_NE(at, std::string::npos) << name;
    const std::size_t end = text.find('\n', at);
    tvc::test::writeFile("/etc/group", text.substr(0, at) + text.substr(end + 1));
}

template <class Map>
std::vector<int> keysOf(const Map& map) {
    std::vector<int> keys;
    for (const auto& entry : map) keys.push_back(entry.first);
    return keys;
}

class CatalogueTest : public tvc::test::SandboxTest {
protected:
    void SetUp() override {
        savedCatalogue_ = ProfileDefinition::m_ptrDefaultProfileDefinition;
        savedMode_ = UmGroup::m_exceptionMode;
        resetTables();
        SandboxTest::SetUp();
    }
    void TearDown() override {
        ProfileDefinition::m_ptrDefaultProfileDefinition = savedCatalogue_;
        UmGroup::m_exceptionMode = savedMode_;
        resetTables();
    }

    ProfileDefinition& catalogue() { return ProfileDefinition::GetProfileDefinition(); }

private:
    ProfileDefinition* savedCatalogue_ = nullptr;
    bool savedMode_ = false;
};

// Counts rebuilds while keeping the built-in content.
class CountingCatalogue : public ProfileDefinition {
public:
    void buildProfiles() override {
        ++builds;
        ProfileDefinition::buildProfiles();
    }
    int builds = 0;
};

// ---- the built-in catalogue -------------------------------------------------------------------

TEST_F(CatalogueTest, BuiltInCatalogueIsBuiltOnFirstLookup) {
    ASSERT_FALSE(ProfileDefinition::m_init);
    UmProfile first = catalogue().getProfile(1);
    EXPECT_TRUE(ProfileDefinition::m_init);
    EXPECT_EQ(first.m_name, "root");
    EXPECT_EQ(first.getId(), 1);

    const auto profiles = catalogue().getProfiles(false);
    EXPECT_EQ(keysOf(profiles), (std::vector<int>{-2, -1, 1}));
    EXPECT_EQ(profiles.at(-2).m_name, "www-data");
    EXPECT_EQ(profiles.at(-2).m_gid, 33u);
    EXPECT_EQ(profiles.at(-1).m_name, "root");
    EXPECT_EQ(profiles.at(-1).m_gid, 0u);
    for (const auto& entry : profiles) EXPECT_TRUE(entry.second.getRoles().empty());
    EXPECT_TRUE(catalogue().getRoles().empty());
}

TEST_F(CatalogueTest, SharedNameOrGidResolvesToTheSmallestId) {
    EXPECT_EQ(catalogue().getProfile("root").getId(), -1);
    EXPECT_EQ(catalogue().getProfile(0u).getId(), -1);
    EXPECT_EQ(catalogue().getProfile(1).getId(), 1);
    EXPECT_EQ(catalogue().getProfile(-1).getId(), -1);
    EXPECT_EQ(catalogue().getProfile("www-data").getId(), -2);
    EXPECT_EQ(catalogue().getProfile(33u).getId(), -2);
}

TEST_F(CatalogueTest, MissesAnswerWithTheNogroupPlaceholders) {
    for (const UmProfile& miss : {catalogue().getProfile("viewers"), catalogue().getProfile(7),
                                  catalogue().getProfile(10002u)}) {
        EXPECT_EQ(miss.m_name, "nogroup");
        EXPECT_EQ(miss.m_gid, 65534u);
        EXPECT_EQ(miss.getId(), -4);
        EXPECT_TRUE(miss.getRoles().empty());
    }
    for (const UmRole& miss : {catalogue().getRole(5), catalogue().getRole(5u), catalogue().getRole("role-log-read")}) {
        EXPECT_EQ(miss.m_name, "nogroup");
        EXPECT_EQ(miss.getId(), 65534 - 4100);
        EXPECT_TRUE(miss.getGroups().empty());
    }
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
    try {
        catalogue().buildProfiles();
        FAIL() << "built without www-data";
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 2);
        EXPECT_STREQ(e.what(), "www-data (group): POSIX Group not found");
    }
    EXPECT_TRUE(ProfileDefinition::g_profiles.empty());
    EXPECT_TRUE(ProfileDefinition::m_init) << "m_init keeps its value";

    UmProfile::enableException();
    const auto profiles = catalogue().getProfiles(true);
    ASSERT_EQ(profiles.size(), 3u);
    EXPECT_EQ(profiles.at(-2).m_gid, UmGroup::kUnresolvedGid);
}

// ---- the tables -------------------------------------------------------------------------------

TEST_F(CatalogueTest, AddProfileNeverReplaces) {
    catalogue().getProfiles(false);
    UmRole logs("role-log-read", -1);
    logs.add(UmGroup("log-read"));
    UmProfile viewers("viewers", 1);
    viewers.add(logs);
    ProfileDefinition::addProfile(viewers);
    EXPECT_EQ(catalogue().getProfile(1).m_name, "root");
    EXPECT_EQ(catalogue().getRole(4).m_name, "role-log-read") << "new role ids are still added";

    UmRole other("role-user-manager", 4);
    UmProfile operators("operators", 5);
    operators.add(other);
    ProfileDefinition::addProfile(operators);
    EXPECT_EQ(catalogue().getProfile(5).m_name, "operators");
    EXPECT_EQ(catalogue().getRole(4).m_name, "role-log-read");
}

TEST_F(CatalogueTest, RefreshRebuildsThroughTheInstalledCatalogue) {
    CountingCatalogue counting;
    counting.setProfileDefinition(counting);
    ASSERT_EQ(&ProfileDefinition::GetProfileDefinition(), &counting);

    catalogue().getProfile("root");
    catalogue().getProfiles(false);
    catalogue().getRoles();
    EXPECT_EQ(counting.builds, 1);

    UmProfile extra("viewers", 9);
    ProfileDefinition::addProfile(extra);
    catalogue().getProfiles(true);
    EXPECT_EQ(counting.builds, 2);
    EXPECT_EQ(catalogue().getProfile(9).getId(), -4) << "a rebuild starts from empty tables";
    catalogue().getRoles();
    EXPECT_EQ(counting.builds, 2) << "getRoles never forces a rebuild";
}

// ---- the sample device's catalogue ------------------------------------------------------------

class SampleCatalogueTest : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        sample_.setProfileDefinition(sample_);
    }

    tvc::sample::SampleCatalogue sample_;
};

TEST_F(SampleCatalogueTest, ProfilesAndRoles) {
    const auto profiles = catalogue().getProfiles(false);
    EXPECT_EQ(keysOf(profiles), (std::vector<int>{-2, -1, 0, 1, 2, 3}));
    EXPECT_EQ(keysOf(catalogue().getRoles()), (std::vector<int>{1, 2, 3, 4}));

    const UmProfile admins = catalogue().getProfile("administrators");
    EXPECT_EQ(admins.getId(), 0);
    EXPECT_TRUE(admins.isBelongingToRole("role-user-manager"));
    EXPECT_TRUE(admins.isBelongingToGroup("net-admin"));

    const UmProfile operators = catalogue().getProfile(10001u);
    EXPECT_EQ(operators.m_name, "operators");
    EXPECT_FALSE(operators.isBelongingToRole("role-user-manager"));
    EXPECT_TRUE(operators.isBelongingToRole("role-user-configure-self"));

    EXPECT_EQ(catalogue().getProfile(2).m_name, "viewers");
    // By role id, not by gid.
    EXPECT_EQ(catalogue().getRole(4u).m_name, "role-log-read");
    EXPECT_EQ(catalogue().getRole(4104u).getId(), 65534 - 4100);
    EXPECT_EQ(catalogue().getRole("role-network-configure").getGroups().at(0).m_name, "net-admin");
}

// The catalogue must grant each managed account exactly the role and right groups the device
// lists it in: otherwise rights checks and the group file would disagree.
TEST_F(SampleCatalogueTest, MatchesTheDeviceGroupMemberships) {
    for (const char* account : {"admin", "operator", "viewer", "tech", "guest"}) {
        SCOPED_TRACE(account);
        unsigned int profileGid = 0;
        ASSERT_TRUE(LinuxUserSystem::getUserIds(account, nullptr, &profileGid));
        std::vector<UmGroup> groups;
        ASSERT_TRUE(LinuxUserSystem::getGroups(account, groups));
        std::set<unsigned int> onDevice;
        for (const UmGroup& group : groups)
            if (group.m_gid != profileGid) onDevice.insert(group.m_gid);

        UmProfile profile = catalogue().getProfile(profileGid);
        ASSERT_NE(profile.getId(), -4);
        profile.updateList();
        std::set<unsigned int> granted;
        for (const auto& entry : profile.m_groupNames) granted.insert(entry.first);
        EXPECT_EQ(onDevice, granted);
    }
}

TEST_F(SampleCatalogueTest, FailedRebuildKeepsThePreviousCatalogue) {
    ASSERT_EQ(catalogue().getProfiles(false).size(), 6u);
    removeGroup("net-admin");
    EXPECT_THROW(catalogue().getProfiles(true), UMException);
    EXPECT_EQ(catalogue().getProfiles(false).size(), 6u);
    EXPECT_EQ(catalogue().getProfile("operators").getId(), 1);
}

}  // namespace
