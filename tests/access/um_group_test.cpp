// Groups, roles and profiles resolved against the sample device's group database.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

#include <umlog/Ctx.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>

#include "support/Sandbox.h"

using usermanagement::ProfileDefinition;
using usermanagement::UMException;
using usermanagement::UmGroup;
using usermanagement::UmProfile;
using usermanagement::UmRole;

namespace {

template <class T>
std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Restores the process-wide exception mode and catalogue pointer whatever a test did.
class AccessValueTest : public tvc::test::SandboxTest {
protected:
    void SetUp() override {
        savedMode_ = UmGroup::m_exceptionMode;
        savedCatalogue_ = ProfileDefinition::m_ptrDefaultProfileDefinition;
        SandboxTest::SetUp();
    }
    void TearDown() override {
        UmGroup::m_exceptionMode = savedMode_;
        ProfileDefinition::m_ptrDefaultProfileDefinition = savedCatalogue_;
        umlog::Ctx::getCtx().setUsername("");
    }

private:
    bool savedMode_ = false;
    ProfileDefinition* savedCatalogue_ = nullptr;
};

using GroupTest = AccessValueTest;
using RoleTest = AccessValueTest;
using ProfileTest = AccessValueTest;

// ---- resolution -------------------------------------------------------------------------------

TEST_F(GroupTest, ResolvesByNameAndByGid) {
    EXPECT_EQ(UmGroup("root").m_gid, 0u);
    EXPECT_EQ(UmGroup(std::string("viewers")).m_gid, 10002u);
    EXPECT_EQ(UmGroup(0u).m_name, "root");
    EXPECT_EQ(UmGroup(4201u).m_name, "log-read");
}

TEST_F(GroupTest, UnknownNameThrowsCode2NamingTheGroup) {
    umlog::Ctx::getCtx().setUsername("operator");
    try {
        UmGroup group("no-such-group");
        FAIL() << "resolved to gid " << group.m_gid;
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 2);
        EXPECT_STREQ(e.what(), "no-such-group (group): POSIX Group not found");
        EXPECT_EQ(e.getUser(), "operator");
    }
    EXPECT_THROW(UmRole("no-such-role", 3), UMException);
    EXPECT_THROW(UmProfile("no-such-profile", 3), UMException);
}

TEST_F(GroupTest, ExceptionModeSwallowsNameFailuresOnly) {
    UmProfile::enableException();
    ASSERT_TRUE(UmGroup::m_exceptionMode);

    UmGroup group("no-such-group");
    EXPECT_EQ(group.m_name, "no-such-group");
    EXPECT_EQ(group.m_gid, UmGroup::kUnresolvedGid);
    EXPECT_EQ(UmRole("no-such-role", 7).getId(), 7);
    EXPECT_EQ(UmProfile("no-such-profile", 9).m_name, "no-such-profile");

    // The gid constructor has no name to fall back on and always throws; the gid is unsigned.
    try {
        UmGroup byGid(4294967295u);
        FAIL() << "resolved to " << byGid.m_name;
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 2);
        EXPECT_STREQ(e.what(), "4294967295 (group): POSIX Group not found");
    }

    UmProfile::disableException();
    EXPECT_FALSE(UmGroup::m_exceptionMode);
    EXPECT_THROW(UmGroup("no-such-group"), UMException);
}

// ---- roles ------------------------------------------------------------------------------------

TEST_F(RoleTest, IdDerivesFromGidOnlyForMinusOne) {
    EXPECT_EQ(UmRole("role-log-read", -1).getId(), 4);  // gid 4104
    EXPECT_EQ(UmRole("role-log-read", 7).getId(), 7);
    EXPECT_EQ(UmRole("role-user-manager", -1).getId(), 1);
    // A group below the role base still gets a (negative) id rather than a wrapped one.
    EXPECT_EQ(UmRole("users", -1).getId(), 100 - 4100);
}

TEST_F(RoleTest, DerivedIdNeedsAnInstalledCatalogue) {
    ProfileDefinition::m_ptrDefaultProfileDefinition = nullptr;
    try {
        UmRole role("role-log-read", -1);
        FAIL() << "built role with id " << role.getId();
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 40);
        EXPECT_STREQ(e.what(), "No Profile Database");
        EXPECT_EQ(e.getUser(), "No Profile Database");
    }
    EXPECT_EQ(UmRole("role-log-read", 4).getId(), 4);
}

TEST_F(RoleTest, MembershipCoversOwnGroupAndGrantedGroups) {
    UmRole role("role-network-configure", -1);
    EXPECT_TRUE(role.isBelongingTo("role-network-configure"));
    EXPECT_TRUE(role.isBelongingTo(4103u));
    EXPECT_FALSE(role.isBelongingTo("net-admin"));

    role.add(UmGroup("net-admin"));
    EXPECT_TRUE(role.isBelongingTo("net-admin"));
    EXPECT_TRUE(role.isBelongingTo(4200u));
    EXPECT_FALSE(role.isBelongingTo("log-read"));
    EXPECT_FALSE(role.isBelongingTo(4201u));
}

TEST_F(RoleTest, AddingARoleCopiesItsGrantsNotItsGroupAndKeepsDuplicates) {
    UmRole logRead("role-log-read", -1);
    logRead.add(UmGroup("log-read"));
    UmRole bundle("role-user-manager", -1);
    bundle.add(UmGroup("log-read"));
    bundle.add(logRead);
    bundle.add(bundle);  // self-add doubles the grants
    EXPECT_EQ(bundle.getGroups().size(), 4u);
    EXPECT_FALSE(bundle.isBelongingTo("role-log-read"));
    EXPECT_EQ(printed(logRead), "role:[role-log-read] id[4] gid[4104]\nGroup:[log-read] gid[4201]\n");
}

TEST_F(RoleTest, SwapExchangesGroupsAndIdOnly) {
    UmRole a("role-network-configure", -1);
    a.add(UmGroup("net-admin"));
    UmRole b("role-log-read", 9);
    a.swap(b);
    EXPECT_EQ(a.m_name, "role-network-configure");
    EXPECT_EQ(a.m_gid, 4103u);
    EXPECT_EQ(a.getId(), 9);
    EXPECT_TRUE(a.getGroups().empty());
    EXPECT_EQ(b.m_name, "role-log-read");
    EXPECT_EQ(b.getId(), 3);
    ASSERT_EQ(b.getGroups().size(), 1u);

    UmGroup x("net-admin"), y("log-read");
    x.swap(y);
    EXPECT_EQ(x.m_name, "log-read");
    EXPECT_EQ(x.m_gid, 4201u);
    EXPECT_EQ(y.m_name, "net-admin");
    EXPECT_EQ(y.m_gid, 4200u);
}

// ---- profiles ---------------------------------------------------------------------------------

// operators: network configuration (granting net-admin) and log reading (granting log-read).
const char* const kOperatorsHead = "Profile:[operators] id[1] gid[10001]\n"
                                   "role:[role-network-configure] id[3] gid[4103]\n"
                                   "Group:[net-admin] gid[4200]\n"
                                   "role:[role-log-read] id[4] gid[4104]\n"
                                   "Group:[log-read] gid[4201]\n"
                                   "Groups list\n";

UmProfile operatorsProfile() {
    UmRole network("role-network-configure", -1);
    network.add(UmGroup("net-admin"));
    UmRole logs("role-log-read", -1);
    logs.add(UmGroup("log-read"));
    UmProfile profile("operators", 1);
    profile.add(network);
    profile.add(logs);
    return profile;
}

TEST_F(ProfileTest, MembershipGoesThroughRolesOnly) {
    UmProfile empty("operators", 1);
    EXPECT_FALSE(empty.isBelongingToGroup("operators"));
    EXPECT_FALSE(empty.isBelongingToGroup(10001u));

    UmProfile profile = operatorsProfile();
    EXPECT_FALSE(profile.isBelongingToGroup("operators"));
    EXPECT_TRUE(profile.isBelongingToRole("role-log-read"));
    EXPECT_FALSE(profile.isBelongingToRole("log-read"));  // a granted group is not a role
    EXPECT_TRUE(profile.isBelongingToRole(3));
    EXPECT_FALSE(profile.isBelongingToRole(1));
    EXPECT_TRUE(profile.isBelongingToGroup("role-network-configure"));
    EXPECT_TRUE(profile.isBelongingToGroup(4201u));
    EXPECT_FALSE(profile.isBelongingToGroup("role-user-manager"));
    EXPECT_FALSE(profile.isBelongingToGroup(4101u));
}

TEST_F(ProfileTest, PrintedForm) {
    UmProfile profile = operatorsProfile();
    profile.updateList();
    EXPECT_EQ(printed(profile), std::string(kOperatorsHead) +
                                    "4103 role-network-configure\n4104 role-log-read\n4200 net-admin\n4201 log-read\n");
    EXPECT_EQ(printed(UmProfile("nogroup", -4)), "Profile:[nogroup] id[-4] gid[65534]\nGroups list\n");

    UmProfile::enableException();
    EXPECT_EQ(printed(UmRole("no-such-role", -1)), "role:[no-such-role] id[-4101] gid[4294967295]\n");
}

TEST_F(ProfileTest, UpdateListOrdersByGidAndKeepsTheFirstName) {
    // A second name for gid 100, granted by the later role.
    tvc::test::writeFile("/etc/group", tvc::test::readFile("/etc/group") + "staff-alias:x:100:\n");
    UmRole manager("role-user-manager", -1);
    manager.add(UmGroup("users"));
    UmRole self("role-user-configure-self", -1);
    self.add(UmGroup("staff-alias"));
    ASSERT_EQ(self.getGroups().at(0).m_gid, 100u);

    UmProfile profile("administrators", 0);
    profile.add(manager);
    profile.add(self);
    EXPECT_TRUE(profile.m_groupNames.empty()) << "add() must not fill the map";
    profile.updateList();
    EXPECT_EQ(printed(profile).substr(printed(profile).find("Groups list")),
              "Groups list\n100 users\n4101 role-user-manager\n4102 role-user-configure-self\n");

    // Rebuilt from scratch, not merged.
    profile.m_roles.erase(profile.m_roles.begin());
    profile.updateList();
    ASSERT_EQ(profile.m_groupNames.size(), 2u);
    EXPECT_EQ(profile.m_groupNames.at(100), "staff-alias");
}

TEST_F(ProfileTest, CopiesAndMovesStartWithAnEmptyGroupMap) {
    UmProfile original = operatorsProfile();
    original.updateList();
    UmProfile copy(original);
    EXPECT_EQ(printed(copy), kOperatorsHead);
    UmProfile moved(std::move(copy));
    EXPECT_EQ(printed(moved), kOperatorsHead);
    EXPECT_EQ(original.m_groupNames.size(), 4u);

    // Assignment carries name, gid, roles and id but leaves the target's own map alone.
    UmProfile target("viewers", 2);
    UmRole self("role-user-configure-self", -1);
    target.add(self);
    target.updateList();
    target = original;
    EXPECT_EQ(target.m_name, "operators");
    EXPECT_EQ(target.m_gid, 10001u);
    EXPECT_EQ(target.getId(), 1);
    EXPECT_EQ(target.getRoles().size(), 2u);
    ASSERT_EQ(target.m_groupNames.size(), 1u);
    EXPECT_EQ(target.m_groupNames.at(4102), "role-user-configure-self");

    UmProfile moveTarget("viewers", 2);
    moveTarget.add(self);
    moveTarget.updateList();
    moveTarget = operatorsProfile();
    EXPECT_EQ(moveTarget.m_name, "operators");
    EXPECT_EQ(moveTarget.getRoles().size(), 2u);
    EXPECT_EQ(moveTarget.m_groupNames.size(), 1u);
}

TEST_F(ProfileTest, SwapExchangesRolesAndIdOnly) {
    UmProfile a = operatorsProfile();
    a.updateList();
    UmProfile b("viewers", 2);
    a.swap(b);
    EXPECT_EQ(a.m_name, "operators");
    EXPECT_EQ(a.m_gid, 10001u);
    EXPECT_EQ(a.getId(), 2);
    EXPECT_TRUE(a.getRoles().empty());
    EXPECT_EQ(a.m_groupNames.size(), 4u);
    EXPECT_EQ(b.m_name, "viewers");
    EXPECT_EQ(b.getId(), 1);
    EXPECT_EQ(b.getRoles().size(), 2u);
    EXPECT_TRUE(b.m_groupNames.empty());
}

}  // namespace
