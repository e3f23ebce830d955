// Groups, roles and profiles resolved against the sample device's group database.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "AccessFixture.h"

using namespace usermanagement;
using tvc::test::expectUmException;
using tvc::test::printed;

namespace {

using GroupTest = tvc::test::AccessTest;
using RoleTest = tvc::test::AccessTest;
using ProfileTest = tvc::test::AccessTest;

TEST_F(GroupTest, ResolvesByNameOrGidAndNamesWhatIsMissing) {
    EXPECT_EQ(UmGroup("root").m_gid, 0u);
    EXPECT_EQ(UmGroup(std::string("viewers")).m_gid, 10002u);
    EXPECT_EQ(UmGroup(4201u).m_name, "log-read");

    umlog::Ctx::getCtx().setUsername("operator");
    const char* notFound = " (group): POSIX Group not found";
    expectUmException([] { UmGroup("no-such-group"); }, 2, "no-such-group" + std::string(notFound), "operator");
    expectUmException([] { UmGroup(4294967295u); }, 2, "4294967295" + std::string(notFound), "operator");
    EXPECT_THROW(UmRole("no-such-role", 3), UMException);
    EXPECT_THROW(UmProfile("no-such-profile", 3), UMException);
}

TEST_F(GroupTest, ExceptionModeSwallowsNameFailuresOnly) {
    UmProfile::enableException();
    EXPECT_EQ(printed(UmGroup("no-such-group")), "Group:[no-such-group] gid[4294967295]\n");
    EXPECT_EQ(UmProfile("no-such-profile", 9).m_name, "no-such-profile");
    EXPECT_EQ(UmRole("no-such-role", 7).getId(), 7);
    EXPECT_EQ(printed(UmRole("no-such-role", -1)), "role:[no-such-role] id[-4101] gid[4294967295]\n");
    EXPECT_THROW(UmGroup(4294967295u), UMException) << "a gid has no name to fall back on";

    UmProfile::disableException();
    EXPECT_THROW(UmGroup("no-such-group"), UMException);
}

TEST_F(RoleTest, IdIsDerivedFromTheGidOnlyForMinusOne) {
    EXPECT_EQ(UmRole("role-user-manager", -1).getId(), 1);
    EXPECT_EQ(UmRole("role-log-read", -1).getId(), 4);
    EXPECT_EQ(UmRole("role-log-read", -2).getId(), -2);
    EXPECT_EQ(UmRole("users", -1).getId(), 100 - 4100) << "below the base: negative, not wrapped";

    ProfileDefinition::m_ptrDefaultProfileDefinition = nullptr;
    expectUmException([] { UmRole("role-log-read", -1); }, 40, "No Profile Database", "No Profile Database");
    EXPECT_EQ(UmRole("role-log-read", 4).getId(), 4);
}

TEST_F(RoleTest, BelongsToItsGroupAndGrantsAndAddingARoleCopiesOnlyItsGrants) {
    UmRole role("role-network-configure", -1);
    EXPECT_TRUE(role.isBelongingTo("role-network-configure"));
    EXPECT_TRUE(role.isBelongingTo(4103u));
    EXPECT_FALSE(role.isBelongingTo("net-admin"));
    role.add(UmGroup("net-admin"));
    EXPECT_TRUE(role.isBelongingTo("net-admin"));
    EXPECT_TRUE(role.isBelongingTo(4200u));
    EXPECT_FALSE(role.isBelongingTo(4201u));

    UmRole bundle("role-user-manager", -1);
    bundle.add(role);
    bundle.add(bundle);  // self-add doubles the grants
    const std::string netAdmin = "Group:[net-admin] gid[4200]\n";
    EXPECT_EQ(printed(bundle), "role:[role-user-manager] id[1] gid[4101]\n" + netAdmin + netAdmin);
}

TEST_F(RoleTest, SwapExchangesGrantsAndIdButNotNameOrGid) {
    UmRole a("role-network-configure", -1);
    a.add(UmGroup("net-admin"));
    UmRole b("role-log-read", 9);
    a.swap(b);
    EXPECT_EQ(printed(a), "role:[role-network-configure] id[9] gid[4103]\n");
    EXPECT_EQ(printed(b), "role:[role-log-read] id[3] gid[4104]\nGroup:[net-admin] gid[4200]\n");

    UmGroup x("net-admin"), y("log-read");
    x.swap(y);  // a plain group has nothing else to exchange
    EXPECT_EQ(printed(x) + printed(y), "Group:[log-read] gid[4201]\nGroup:[net-admin] gid[4200]\n");
}

// operators: network configuration (granting net-admin) and log reading (granting log-read).
const std::string kOperatorsRoles = "role:[role-network-configure] id[3] gid[4103]\n"
                                    "Group:[net-admin] gid[4200]\n"
                                    "role:[role-log-read] id[4] gid[4104]\n"
                                    "Group:[log-read] gid[4201]\n";
const std::string kOperators = "Profile:[operators] id[1] gid[10001]\n" + kOperatorsRoles + "Groups list\n";
const std::string kOperatorsMap = "4103 role-network-configure\n4104 role-log-read\n4200 net-admin\n4201 log-read\n";

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
    const UmProfile profile = operatorsProfile();
    EXPECT_FALSE(profile.isBelongingToGroup("operators"));
    EXPECT_FALSE(profile.isBelongingToGroup(10001u));
    EXPECT_TRUE(profile.isBelongingToRole("role-log-read"));
    EXPECT_FALSE(profile.isBelongingToRole("log-read")) << "a granted group is not a role";
    EXPECT_TRUE(profile.isBelongingToRole(3));
    EXPECT_FALSE(profile.isBelongingToRole(1));
    EXPECT_TRUE(profile.isBelongingToGroup("role-network-configure"));
    EXPECT_TRUE(profile.isBelongingToGroup(4201u));
}

TEST_F(ProfileTest, UpdateListRebuildsTheMapByGidKeepingTheFirstName) {
    UmProfile profile = operatorsProfile();
    EXPECT_EQ(printed(profile), kOperators) << "add() leaves the map alone";
    profile.updateList();
    EXPECT_EQ(printed(profile), kOperators + kOperatorsMap);

    // A second name for gid 100, granted by the later role.
    tvc::test::writeFile("/etc/group", tvc::test::readFile("/etc/group") + "staff-alias:x:100:\n");
    UmRole manager("role-user-manager", -1);
    manager.add(UmGroup("users"));
    UmRole self("role-user-configure-self", -1);
    self.add(UmGroup("staff-alias"));
    UmProfile admins("administrators", 0);
    admins.add(manager);
    admins.add(self);
    admins.updateList();
    const auto mapOf = [](const UmProfile& p) { return printed(p).substr(printed(p).find("Groups list\n") + 12); };
    EXPECT_EQ(mapOf(admins), "100 users\n4101 role-user-manager\n4102 role-user-configure-self\n");
    admins.m_roles.erase(admins.m_roles.begin());
    admins.updateList();
    EXPECT_EQ(mapOf(admins), "100 staff-alias\n4102 role-user-configure-self\n") << "rebuilt, not merged";
}

TEST_F(ProfileTest, CopiesAndMovesNeverCarryTheGroupMap) {
    UmProfile original = operatorsProfile();
    original.updateList();
    UmProfile copy(original);
    EXPECT_EQ(printed(copy), kOperators);
    EXPECT_EQ(printed(UmProfile(std::move(copy))), kOperators);
    EXPECT_EQ(printed(original), kOperators + kOperatorsMap);

    // Assignment carries name, gid, roles and id; the target keeps its own map.
    UmProfile target("viewers", 2), moveTarget("viewers", 2);
    for (UmProfile* profile : {&target, &moveTarget}) {
        profile->add(UmRole("role-user-configure-self", -1));
        profile->updateList();
    }
    target = original;
    moveTarget = operatorsProfile();
    EXPECT_EQ(printed(target), kOperators + "4102 role-user-configure-self\n");
    EXPECT_EQ(printed(moveTarget), printed(target));
}

TEST_F(ProfileTest, SwapExchangesRolesAndIdButNotNameGidOrMap) {
    UmProfile a = operatorsProfile();
    a.updateList();
    UmProfile b("viewers", 2);
    a.swap(b);
    EXPECT_EQ(printed(a), "Profile:[operators] id[2] gid[10001]\nGroups list\n" + kOperatorsMap);
    EXPECT_EQ(printed(b), "Profile:[viewers] id[1] gid[10002]\n" + kOperatorsRoles + "Groups list\n");
}

}  // namespace
