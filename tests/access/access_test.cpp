// The access model on the sample device: account and group lookups, groups, roles and profiles as
// values, and the profile catalogue.  Answers are rendered as text and checked against tables.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <umlog/Ctx.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>

#include "sampledevice/SampleCatalogue.h"
#include "sampledevice/SampleDevice.h"
#include "support/Sandbox.h"

using namespace usermanagement;
using systemutilities::LinuxUserSystem;
using tvc::test::addLines;
using tvc::test::removeEntry;

namespace {

using Names = std::vector<std::string>;
using Cases = std::vector<std::pair<std::string, std::string>>;  // what a call gave, what it should

// Besides the sample device (SandboxTest), puts back exception mode, the installed catalogue and
// the log-context user, and empties the tables: every test starts from an unbuilt catalogue.
class AccessTest : public tvc::test::SandboxTest {
protected:
    void TearDown() override {
        UmGroup::m_exceptionMode = savedMode_;
        ProfileDefinition::m_ptrDefaultProfileDefinition = savedCatalogue_;
        std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
        ProfileDefinition::g_profiles.clear();
        ProfileDefinition::g_roles.clear();
        ProfileDefinition::m_init = false;
        umlog::Ctx::getCtx().setUsername("");
    }
    static ProfileDefinition& catalogue() { return ProfileDefinition::GetProfileDefinition(); }

private:
    bool savedMode_ = UmGroup::m_exceptionMode;
    ProfileDefinition* savedCatalogue_ = ProfileDefinition::m_ptrDefaultProfileDefinition;
};
typedef AccessTest LookupTest, ValueTest, CatalogueTest;

void expectAll(const Cases& cases) {
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}
unsigned int uidOf(const char* account) { return tvc::sample::sampleDevice().account(account).uid; }
unsigned int gidOf(const char* group) { return tvc::sample::sampleDevice().group(group).gid; }

// A UMException as "code: message (user)"; made() gives what `make` returns or what it throws.
std::string failure(int code, const std::string& what, const std::string& user) {
    return std::to_string(code) + ": " + what + " (" + user + ")";
}
std::string made(const std::function<std::string()>& make) {
    try {
        return make();
    } catch (const UMException& e) {
        return failure(e.getErrorId(), e.what(), e.getUser());
    }
}

// ---- Lookups, each answer as text.  Outputs start as kKept: an answer of false leaves them.
constexpr unsigned int kKept = 7;
const std::string kFalse = "false";

std::string pair(unsigned int a, unsigned int b) { return std::to_string(a) + "/" + std::to_string(b); }
std::string falseAnswer(bool untouched) { return untouched ? kFalse : "false, with an output written"; }

std::string ids(const char* account) {
    unsigned int uid = kKept, gid = kKept;
    const bool found = LinuxUserSystem::getUserIds(account, &uid, &gid);
    return found ? pair(uid, gid) : falseAnswer(uid == kKept && gid == kKept);
}
std::string userName(unsigned int uid) {
    std::string name = "kept";
    unsigned int gid = kKept;
    const bool found = LinuxUserSystem::getUserName(uid, name, gid);
    return found ? name + "/" + std::to_string(gid) : falseAnswer(name == "kept" && gid == kKept);
}
std::string groupGid(const char* group) {
    unsigned int gid = kKept;
    return LinuxUserSystem::getGroupGid(group, gid) ? std::to_string(gid) : falseAnswer(gid == kKept);
}
std::string groupName(unsigned int gid) {
    std::string name = "kept";
    return LinuxUserSystem::getGroupName(gid, name) ? name : falseAnswer(name == "kept");
}
// The names of a list that held "root" before getGroups appended to it.
template <class Account>
std::string groups(Account account) {
    static const UmGroup root(0u);
    std::vector<UmGroup> list{root};
    if (!LinuxUserSystem::getGroups(account, list)) return falseAnswer(list.size() == 1);
    std::string names;
    for (const UmGroup& group : list) names += (names.empty() ? "" : " ") + group.m_name;
    return names;
}

// An account's profile gid is its primary group when in 10000-19999, else the first profile group
// listed for it, else its primary group; its groups start with that one, then follow the file.
TEST_F(LookupTest, ProfileGidAndGroups) {
    // Primary and supplementary gids around both ends of the range; ghost's primary gid has no
    // group entry: skipped, not a failure.
    addLines("/etc/passwd", "edge-9999:x:3001:9999::/:/bin/sh\nedge-10000:x:3002:10000::/:/bin/sh\n"
                            "edge-19999:x:3003:19999::/:/bin/sh\nedge-20000:x:3004:20000::/:/bin/sh\n"
                            "ghost:x:3000:3333::/:/bin/sh\n");
    addLines("/etc/group", "above:x:20000:edge-9999\nbase:x:10000:edge-9999\ntop:x:19999:edge-20000\n"
                           "edges:x:10005:edge-10000,edge-19999\nghosts:x:4300:ghost\n");
    const std::tuple<const char*, unsigned int, unsigned int> cases[] = {
        {"plainuser", uidOf("plainuser"), gidOf("viewers")},  // listed in role-user-manager first
        {"svc-backup", uidOf("svc-backup"), gidOf("users")},  // in no profile group
        {"edge-9999", 3001, 10000},  {"edge-10000", 3002, 10000},
        {"edge-19999", 3003, 19999}, {"edge-20000", 3004, 19999},
    };
    for (const auto& [account, uid, profileGid] : cases) {
        EXPECT_EQ(ids(account), pair(uid, profileGid));
        EXPECT_EQ(userName(uid), account + ("/" + std::to_string(profileGid)));
    }
    expectAll({{groups("admin"), "root administrators role-user-manager role-user-configure-self "
                                 "role-network-configure role-log-read net-admin log-read"},
               {groups(uidOf("plainuser")), "root viewers role-user-manager"},
               {groups("svc-backup"), "root users log-read"},
               {groups(3000u), "root ghosts"}});
    for (const std::string& answer : {ids(nullptr), ids("nosuch"), userName(4242), groupGid(nullptr), groupGid("x"),
                                      groupName(4242), groups(4242u), groups("nosuch"), groups<const char*>(nullptr)})
        EXPECT_EQ(answer, kFalse);
}

// The files backend answers "does not fit" for every line it parses on the way, so lookups
// grow their buffer; beyond the 16 MiB cap the database cannot answer, which is no "not found".
TEST_F(LookupTest, EntriesBehindALongLineAreFoundAndBeyondTheCapNothingIs) {
    std::string crowd = "crowd:x:4300:";
    for (int i = 0; i < 5000; ++i) crowd += "member" + std::to_string(i) + ",";
    addLines("/etc/group", crowd + "viewer\n", true);
    addLines("/etc/passwd", "long:x:3100:4300:" + std::string(100000, 'g') + ":/:/bin/sh\n", true);
    const auto answers = [] {
        return Names{groupGid("viewers"), groupName(10003), ids("viewer"), userName(10003), groups("viewer"),
                     groupGid("crowd"), groupName(4300), ids("long"), userName(3100), groups(3100u)};
    };
    EXPECT_EQ(answers(), (Names{"10002", "maintainers", "10002/10002", "tech/10003",
                                "root viewers crowd role-user-configure-self role-log-read log-read", "4300", "crowd",
                                "3100/4300", "long/4300", "root crowd"}));
    addLines("/etc/group", "huge:x:4400:" + std::string(17u << 20, 'm') + "\n", true);
    EXPECT_EQ(answers(), (Names{kFalse, kFalse, "10002/10002", "tech/10003", kFalse, kFalse, kFalse, "3100/4300",
                                "long/4300", kFalse}));
}

// ---- Groups, roles and profiles as values, described as "name/id/gid: grants or roles; map".
template <class Value>
std::string key(const Value& value) {
    return value.m_name + "/" + std::to_string(value.getId()) + "/" + std::to_string(value.m_gid);
}
std::string describe(const UmRole& role) {
    std::string text = key(role) + ":";
    for (const UmGroup& group : role.m_groups) text += " " + group.m_name;
    return text;
}
std::string describe(const UmProfile& profile) {
    std::string text = key(profile) + ":";
    for (const UmRole& role : profile.m_roles) text += " " + role.m_name;
    text += ";";
    for (const auto& [gid, name] : profile.m_groupNames) text += " " + std::to_string(gid) + "=" + name;
    return text;
}

// A profile of roles, ids from their gids, each granting `grants`.
UmProfile profileOf(const char* name, int id, const std::vector<std::pair<const char*, Names>>& roles) {
    UmProfile profile(name, id);
    for (const auto& [role, grants] : roles) {
        UmRole made(role, -1);
        for (const std::string& group : grants) made.add(UmGroup(group));
        profile.add(made);
    }
    return profile;
}
UmProfile operators() {
    return profileOf("operators", 1, {{"role-network-configure", {"net-admin"}}, {"role-log-read", {"log-read"}}});
}

TEST_F(ValueTest, ConstructionResolvesTheGroupAndExceptionModeSparesOnlyNames) {
    umlog::Ctx::getCtx().setUsername("operator");
    const auto missing = [](const char* what) {
        return failure(UMError::RoleError, what + std::string(" (group): POSIX Group not found"), "operator");
    };
    // Rows run in order: the mode switches stay in force for the rows below them.
    const auto mode = [](bool on, const std::function<std::string()>& make) {
        on ? UmProfile::enableException() : UmProfile::disableException();
        return made(make);
    };
    const std::string unresolved = std::to_string(UmGroup::kUnresolvedGid);
    expectAll({
        {mode(false, [] { return key(UmProfile(std::string("viewers"), 2)); }), "viewers/2/10002"},
        {made([] { return UmGroup(4201u).m_name; }), "log-read"},
        {made([] { return key(UmRole("role-user-manager", -1)); }), "role-user-manager/1/4101"},  // gid - 4100
        {made([] { return key(UmRole("role-log-read", -2)); }), "role-log-read/-2/4104"},
        {made([] { return UmGroup("nosuch").m_name; }), missing("nosuch")},
        {made([] { return UmGroup(4294967295u).m_name; }), missing("4294967295")},
        {mode(true, [] { return std::to_string(UmGroup(static_cast<const char*>(nullptr)).m_gid); }), unresolved},
        {made([] { return key(UmRole("nosuch", -1)); }), "nosuch/-4101/" + unresolved},
        {mode(true, [] { return key(UmProfile("nosuch", 9)); }), "nosuch/9/" + unresolved},
        {made([] { return UmGroup(4294967295u).m_name; }), missing("4294967295")},  // no name to keep
        {mode(false, [] { return UmProfile("nosuch", 3).m_name; }), missing("nosuch")},
        // Without a catalogue a role takes its id only from the caller.
        {made([] { ProfileDefinition::m_ptrDefaultProfileDefinition = nullptr; return key(UmRole("users", 4)); }),
         "users/4/100"},
        {made([] { return key(UmRole("users", -1)); }),
         failure(UMError::NothingInstalled, "No Profile Database", "No Profile Database")},
    });
}

TEST_F(ValueTest, MembershipGoesThroughTheRoleOrTheProfilesRoles) {
    const UmProfile profile = operators();
    const UmRole& network = profile.m_roles.at(0);
    const bool cases[][2] = {
        {network.isBelongingTo("role-network-configure"), true}, {network.isBelongingTo(4103u), true},
        {network.isBelongingTo("net-admin"), true},              {network.isBelongingTo(4200u), true},
        {network.isBelongingTo("log-read"), false},              {network.isBelongingTo(4201u), false},
        {profile.isBelongingToRole("role-log-read"), true},      {profile.isBelongingToRole("log-read"), false},
        {profile.isBelongingToRole(3), true},                    {profile.isBelongingToRole(1), false},
        {profile.isBelongingToGroup("operators"), false},        {profile.isBelongingToGroup(10001u), false},
        {profile.isBelongingToGroup("role-log-read"), true},     {profile.isBelongingToGroup(4104u), true},
        {profile.isBelongingToGroup("net-admin"), true},         {profile.isBelongingToGroup(4201u), true},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << "case " << i;
}

// Adding a role copies its grants only; a swap keeps name and gid, and a profile's swap its map.
// updateList rebuilds the map, the first name of a gid staying; copies and moves never carry
// the map, and an assigned profile keeps its own.
TEST_F(ValueTest, AddSwapCopyAndTheGroupMap) {
    UmRole bundle("role-user-manager", -1), other("role-log-read", 9), network = operators().m_roles.at(0);
    network.add(UmGroup("net-admin"));  // granted twice
    bundle.add(network);
    bundle.add(bundle);
    bundle.swap(other);
    UmGroup x("net-admin"), y("log-read");
    x.swap(y);

    addLines("/etc/group", "staff-alias:x:100:\n");  // a second name for gid 100, granted later
    UmProfile admins = profileOf("administrators", 0,
                                 {{"role-user-manager", {"users"}}, {"role-user-configure-self", {"staff-alias"}}});
    admins.updateList();
    const std::string bothRoles = describe(admins);
    admins.m_roles.erase(admins.m_roles.begin());
    UmProfile swapped = operators(), viewers("viewers", 2), a = operators(), b = operators(), c = operators(),
              target = admins, moveTarget = admins;
    for (UmProfile* p : {&admins, &swapped, &a, &b, &c, &target, &moveTarget}) p->updateList();
    swapped.swap(viewers);
    UmProfile copy(a), moved(std::move(b));
    target = a;
    moveTarget = std::move(c);

    const std::string ops = "operators/1/10001: role-network-configure role-log-read;";
    const std::string opsMap = " 4103=role-network-configure 4104=role-log-read 4200=net-admin 4201=log-read";
    const std::string adminsMap = " 100=staff-alias 4102=role-user-configure-self";
    expectAll({{describe(bundle), "role-user-manager/9/4101:"},
               {describe(other), "role-log-read/1/4104: net-admin net-admin net-admin net-admin"},
               {x.m_name + "/" + std::to_string(x.m_gid), "log-read/4201"},
               {describe(swapped), "operators/2/10001:;" + opsMap},
               {describe(viewers), "viewers/1/10002: role-network-configure role-log-read;"},
               {describe(operators()), ops},  // add() leaves the map alone
               {describe(a), ops + opsMap},
               {bothRoles, "administrators/0/10000: role-user-manager role-user-configure-self; 100=users "
                           "4101=role-user-manager 4102=role-user-configure-self"},
               {describe(admins), "administrators/0/10000: role-user-configure-self;" + adminsMap},  // not merged
               {describe(copy), ops},
               {describe(moved), ops},
               {describe(target), ops + adminsMap},
               {describe(moveTarget), ops + adminsMap}});
}

// ---- The catalogue.

// The built-in catalogue answers the smallest id for a shared name or gid and a placeholder on
// "nogroup" for a miss; addProfile never replaces an id, and roles are looked up by id.
TEST_F(CatalogueTest, BuiltInCatalogueAndAddProfile) {
    const std::string noProfile = "nogroup/-4/65534", noRole = "nogroup/61434/65534";
    expectAll({{key(catalogue().getProfile(1)), "root/1/0"},  // the first lookup builds it
               {key(catalogue().getProfile("root")), "root/-1/0"},
               {key(catalogue().getProfile(0u)), "root/-1/0"},
               {key(catalogue().getProfile(33u)), "www-data/-2/33"},
               {key(catalogue().getProfile("viewers")), noProfile},
               {key(catalogue().getProfile(7)), noProfile},
               {key(catalogue().getProfile(10002u)), noProfile},
               {key(catalogue().getRole("role-log-read")), noRole},
               {std::to_string(catalogue().getProfiles(false).size() + catalogue().getRoles().size()), "3"}});
    UmProfile viewers = profileOf("viewers", 1, {{"role-log-read", {}}}), extra("operators", 5);
    extra.add(UmRole("role-user-manager", 4));
    ProfileDefinition::addProfile(viewers);
    ProfileDefinition::addProfile(extra);
    expectAll({{key(catalogue().getProfile(1)), "root/1/0"},
               {key(catalogue().getProfile(5)), "operators/5/10001"},
               {key(catalogue().getRole(4)), "role-log-read/4/4104"},   // the first role 4 stays
               {key(catalogue().getRole(4u)), "role-log-read/4/4104"},  // an unsigned argument is an id
               {key(catalogue().getRole("role-log-read")), "role-log-read/4/4104"},
               {key(catalogue().getRole(4104u)), noRole}});
}

// A lookup makes its "nothing found" placeholder first, found or not; the built-in build
// empties the tables before it resolves anything.
TEST_F(CatalogueTest, LookupsNeedNogroupAndAFailedBuiltInBuildLeavesNothing) {
    catalogue().getProfiles(true);
    removeEntry("/etc/group", "nogroup");
    const std::string noNogroup = failure(UMError::RoleError, "nogroup (group): POSIX Group not found", "");
    EXPECT_EQ(made([] { return key(catalogue().getProfile(1)); }), noNogroup);
    EXPECT_EQ(made([] { return key(catalogue().getRole(1)); }), noNogroup);
    removeEntry("/etc/group", "www-data");
    EXPECT_EQ(made([] { return catalogue().buildProfiles(), ""; }),
              failure(UMError::RoleError, "www-data (group): POSIX Group not found", ""));
    EXPECT_TRUE(ProfileDefinition::g_profiles.empty());

    UmProfile::enableException();
    EXPECT_EQ(catalogue().getProfiles(true).at(-2).m_gid, UmGroup::kUnresolvedGid);
    EXPECT_EQ(key(catalogue().getProfile(1)), "root/1/0");
    EXPECT_EQ(catalogue().getProfile(7).m_gid, UmGroup::kUnresolvedGid);
}

TEST_F(CatalogueTest, OnlyRefreshRebuildsThroughTheInstalledCatalogue) {
    struct : ProfileDefinition {  // a host build that leaves the bookkeeping to the library
        void buildProfiles() override { ++builds; }
        int builds = 0;
    } counting;
    counting.setProfileDefinition(counting);
    for (bool refresh : {false, false, true, false}) {
        const int before = counting.builds;
        catalogue().getProfile("root"), catalogue().getProfiles(refresh), catalogue().getRoles();
        EXPECT_EQ(counting.builds - before, before == 0 || refresh ? 1 : 0) << refresh;
    }
}

// Nothing clears the tables before a host's buildProfiles runs: a failed rebuild keeps them.
TEST_F(CatalogueTest, FailedHostRebuildKeepsTheCatalogueInPlace) {
    tvc::sample::SampleCatalogue sample;
    sample.setProfileDefinition(sample);
    ASSERT_EQ(catalogue().getProfiles(false).size(), 6u);
    removeEntry("/etc/group", "net-admin");
    EXPECT_EQ(made([] { return std::to_string(catalogue().getProfiles(true).size()); }),
              failure(UMError::RoleError, "net-admin (group): POSIX Group not found", ""));
    EXPECT_EQ(key(catalogue().getProfile("operators")), "operators/1/10001");
}

}  // namespace
