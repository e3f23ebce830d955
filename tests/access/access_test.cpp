// The access model on the sample device: lookups, groups, roles and profiles as values, and the
// profile catalogue, each answer rendered as text and checked against a table.
#include <algorithm>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>

#include <systemutilities/LinuxUserSystem.h>
#include <umlog/Ctx.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>
#include <usermanagement/UserDefinition.h>

#include "access/NameServiceSources.h"
#include "sampledevice/SampleConfiguration.h"
#include "sampledevice/SampleDevice.h"
#include "support/Sandbox.h"

using namespace usermanagement;
using systemutilities::LinuxUserSystem;
using tvc::sample::sampleDevice;
using tvc::test::addLines;
using tvc::test::removeEntry;

namespace {

using Names = std::vector<std::string>;

// Puts back what a test may change; every test starts from an unbuilt catalogue.
class AccessTest : public tvc::test::SandboxTest {
protected:
    void TearDown() override {
        UmGroup::m_exceptionMode = false;
        ProfileDefinition::m_ptrDefaultProfileDefinition = builtIn;
        std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
        ProfileDefinition::g_profiles.clear();
        ProfileDefinition::g_roles.clear();
        ProfileDefinition::m_init = false;
        umlog::Ctx::getCtx().setUsername("");
    }
    static ProfileDefinition& catalogue() { return ProfileDefinition::GetProfileDefinition(); }
    static inline ProfileDefinition* const builtIn = ProfileDefinition::m_ptrDefaultProfileDefinition;
};
typedef AccessTest LookupTest, ValueTest, CatalogueTest;

// A UMException as "code: message (user)"; made() gives what `make` returns or what it throws.
std::string failure(int code, const std::string& what, const std::string& user) {
    return std::to_string(code) + ": " + what + " (" + user + ")";
}
std::string made(const std::function<std::string()>& make) try {
    return make();
} catch (const UMException& e) {
    return failure(e.getErrorId(), e.what(), e.getUser());
}
// The failure of a group, role or profile whose group the group file lacks.
std::string missing(const std::string& group, const std::string& user = "") {
    return failure(UMError::RoleError, group + " (group): POSIX Group not found", user);
}

// ---- Lookups.  Outputs start as 7 or "kept": an answer of false must leave them.
const std::string kFalse = "false", kFailed = "12";
// The outputs when `lookup` found its entry; kFalse when not, the outputs still `kept`; the
// code (kFailed) when the database could not answer.
std::string answer(const std::function<bool()>& lookup, const std::function<std::string()>& outputs,
                   const char* kept) try {
    if (lookup()) return outputs();
    return outputs() == kept ? kFalse : "false, with an output written";
} catch (const UMSystemErrorException& e) {
    return std::to_string(e.getErrorId());
}

std::string ids(const char* account) {
    unsigned int uid = 7, gid = 7;
    return answer([&] { return LinuxUserSystem::getUserIds(account, &uid, &gid); },
                  [&] { return std::to_string(uid) + "/" + std::to_string(gid); }, "7/7");
}
std::string userName(unsigned int uid) {
    std::string name = "kept";
    unsigned int gid = 7;
    return answer([&] { return LinuxUserSystem::getUserName(uid, name, gid); },
                  [&] { return name + "/" + std::to_string(gid); }, "kept/7");
}
std::string groupGid(const char* group) {
    unsigned int gid = 7;
    return answer([&] { return LinuxUserSystem::getGroupGid(group, gid); }, [&] { return std::to_string(gid); }, "7");
}
std::string groupName(unsigned int gid) {
    std::string name = "kept";
    return answer([&] { return LinuxUserSystem::getGroupName(gid, name); }, [&] { return name; }, "kept");
}
// The names of a list that held "root" before getGroups appended to it.
template <class Account>
std::string groups(Account account) {
    static const UmGroup root(0u);  // made once: no lookup answers beyond the cap
    std::vector<UmGroup> list{root};
    const auto names = [&] {
        std::string text;
        for (const UmGroup& group : list) text += (text.empty() ? "" : " ") + group.m_name;
        return text;
    };
    return answer([&] { return LinuxUserSystem::getGroups(account, list); }, names, "root");
}

// An account's profile gid is its primary group when in 10000-19999, else the first profile group
// listed for it, else its primary group; its groups start with that one, then follow the file.
// svc-backup is in no profile group; ghost's primary gid has no group entry: skipped, no failure.
TEST_F(LookupTest, ProfileGidAndGroups) {
    // Primary and supplementary gids around both ends of the range.
    addLines("/etc/passwd",
             "edge-9999:x:3001:9999::/:/bin/sh\nedge-10000:x:3002:10000::/:/bin/sh\n"
             "edge-19999:x:3003:19999::/:/bin/sh\nedge-20000:x:3004:20000::/:/bin/sh\n"
             "ghost:x:3000:3333::/:/bin/sh\n");
    addLines("/etc/group",
             "above:x:20000:edge-9999\nbase:x:10000:edge-9999\ntop:x:19999:edge-20000\n"
             "edges:x:10005:edge-10000,edge-19999\nghosts:x:4300:ghost\n");
    const std::tuple<const char*, unsigned int, unsigned int> cases[] = {
        {"svc-backup", 2003, 100},   {"edge-9999", 3001, 10000},  {"edge-10000", 3002, 10000},
        {"edge-19999", 3003, 19999}, {"edge-20000", 3004, 19999},
    };
    for (const auto& [account, uid, profileGid] : cases) {
        EXPECT_EQ(ids(account), std::to_string(uid) + "/" + std::to_string(profileGid));
        EXPECT_EQ(userName(uid), account + ("/" + std::to_string(profileGid)));
    }
    // plainuser (2002) is in role-user-manager before viewers.
    EXPECT_EQ((Names{groups(2002u), groups(3000u)}), (Names{"root viewers role-user-manager", "root ghosts"}));
    for (const std::string& answer : {ids(nullptr), ids("nosuch"), userName(4242), groupGid(nullptr), groupGid("x"),
                                      groupName(4242), groups(4242u), groups("nosuch"), groups<const char*>(nullptr)})
        EXPECT_EQ(answer, kFalse);
}

// The files backend answers "does not fit" for every line it parses on the way, so lookups
// grow their buffer; beyond the 16 MiB cap the database cannot answer: a failure (12), no "not
// found".  getGroups answers false then.
TEST_F(LookupTest, EntriesBehindALongLineAreFoundAndBeyondTheCapFail) {
    std::string crowd = "crowd:x:4300:";
    for (int i = 0; i < 5000; ++i) crowd += "member" + std::to_string(i) + ",";
    addLines("/etc/group", crowd + "viewer\n", true);
    addLines("/etc/passwd", "long:x:3100:4300:" + std::string(100000, 'g') + ":/:/bin/sh\n", true);
    const auto answers = [] {
        return Names{groupGid("viewers"), groupName(10003), ids("viewer"), userName(10003), groups("viewer"),
                     groupGid("crowd"),   groupName(4300),  ids("long"),   userName(3100),  groups(3100u)};
    };
    EXPECT_EQ(answers(), (Names{"10002", "maintainers", "10002/10002", "tech/10003",
                                "root viewers crowd role-user-configure-self role-log-read log-read", "4300", "crowd",
                                "3100/4300", "long/4300", "root crowd"}));
    addLines("/etc/group", "huge:x:4400:" + std::string(17u << 20, 'm') + "\n", true);
    EXPECT_EQ(answers(), (Names{kFailed, kFailed, "10002/10002", "tech/10003", kFalse, kFailed, kFailed, "3100/4300",
                                "long/4300", kFalse}));
    addLines("/etc/passwd", "huge:x:3200:100:" + std::string(17u << 20, 'g') + ":/:/bin/sh\n", true);
    EXPECT_EQ((Names{ids("viewer"), userName(10003)}), (Names{kFailed, kFailed}));
}

// ---- Values, described as "name/id/gid".
template <class Value>
std::string key(const Value& value) {
    return value.m_name + "/" + std::to_string(value.getId()) + "/" + std::to_string(value.m_gid);
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

// A role's id is its gid minus 4100 unless given.  Exception mode lets groups, roles and profiles
// be made by a name the group file lacks; a gid without a group still fails, having no name.
TEST_F(ValueTest, ConstructionResolvesTheGroupAndExceptionModeSparesOnlyNames) {
    umlog::Ctx::getCtx().setUsername("operator");
    const auto lost = [](const char* group) { return missing(group, "operator"); };
    const auto noName = [] { return UmGroup(4294967295u).m_name; };
    EXPECT_EQ((Names{key(UmRole("role-user-manager", -1)), key(UmRole("role-log-read", -2)),
                     made([] { return UmGroup("nosuch").m_name; }), made([] { return key(UmProfile("nosuch", 3)); }),
                     made(noName)}),
              (Names{"role-user-manager/1/4101", "role-log-read/-2/4104", lost("nosuch"), lost("nosuch"),
                     lost("4294967295")}));
    UmProfile::enableException();
    const std::string unresolved = std::to_string(UmGroup::kUnresolvedGid);
    EXPECT_EQ((Names{std::to_string(UmGroup(static_cast<const char*>(nullptr)).m_gid), key(UmRole("nosuch", -1)),
                     key(UmProfile("nosuch", 9)), made(noName)}),
              (Names{unresolved, "nosuch/-4101/" + unresolved, "nosuch/9/" + unresolved, lost("4294967295")}));
    UmProfile::disableException();
    EXPECT_EQ(made([] { return UmRole("nosuch", 5).m_name; }), lost("nosuch"));
}

// ---- The catalogue.  The built-in one, built by the first lookup, answers the smallest id for
// a shared name or gid and a placeholder on "nogroup" for a miss; addProfile never replaces an
// id, and roles are looked up by id, also through an unsigned argument.  A lookup makes its
// placeholder first, found or not; the built-in build empties the tables first.
TEST_F(CatalogueTest, BuiltInCatalogueAddProfileAndNogroup) {
    const auto profile = [](auto by) { return key(catalogue().getProfile(by)); };
    const auto role = [](auto by) { return key(catalogue().getRole(by)); };
    const std::string noProfile = "nogroup/-4/65534", noRole = "nogroup/61434/65534";
    EXPECT_EQ((Names{profile(1), profile("root"), profile(0u), profile(33u), profile("viewers"), profile(7),
                     profile(10002u), role("role-log-read")}),
              (Names{"root/1/0", "root/-1/0", "root/-1/0", "www-data/-2/33", noProfile, noProfile, noProfile, noRole}));
    UmProfile viewers = profileOf("viewers", 1, {{"role-log-read", {}}}), extra("operators", 5);
    extra.add(UmRole("role-user-manager", 4));
    ProfileDefinition::addProfile(viewers);
    ProfileDefinition::addProfile(extra);
    EXPECT_EQ((Names{profile(1), profile(5), role(4), role(4u), role("role-log-read"), role(4104u)}),
              (Names{"root/1/0", "operators/5/10001", "role-log-read/4/4104", "role-log-read/4/4104",
                     "role-log-read/4/4104", noRole}));

    removeEntry("/etc/group", "nogroup");
    EXPECT_EQ(made([&] { return profile(1); }), missing("nogroup"));
    EXPECT_EQ(made([&] { return role(4); }), missing("nogroup"));
    removeEntry("/etc/group", "www-data");
    EXPECT_EQ(made([] { return catalogue().buildProfiles(), ""; }), missing("www-data"));
    EXPECT_TRUE(ProfileDefinition::g_profiles.empty());
}

// The sample device's configured catalogue and the group file agree: a managed account is a member of exactly the
// role and right groups its profile grants, so rights checks through either give the same
// answer, and the managed accounts fill the default limit.  The installed catalogue is built by
// the first lookup and again only on refresh; nothing clears the tables before a host's
// buildProfiles runs, so a failed rebuild keeps them.
TEST_F(CatalogueTest, ConfiguredCatalogueGrantsWhatTheGroupFileHoldsAndIsRebuiltOnlyOnRefresh) {
    struct : tvc::sample::SampleProfiles {
        void buildProfiles() override {
            ++builds;
            SampleProfiles::buildProfiles();
            m_init = false;  // as a host that leaves the bookkeeping to the library
        }
        int builds = 0;
    } sample;
    sample.setProfileDefinition(sample);
    catalogue().getRoles();
    UserDefinition& settings = UserDefinition::GetUserDefinition();
    unsigned int managed = 0;
    for (const auto& account : sampleDevice().accounts) {
        if (account.uid - settings.getBaseUid() >= settings.getMaxUser()) continue;
        ++managed;
        const unsigned int gid = sampleDevice().group(account.group).gid;
        const UmProfile profile = catalogue().getProfile(gid);
        EXPECT_EQ(key(profile), account.group + "/" + std::to_string(gid - 10000) + "/" + std::to_string(gid));
        std::string held;
        for (const auto& group : sampleDevice().groups) {
            SCOPED_TRACE(account.name + " in " + group.name);
            const bool member = std::count(group.members.begin(), group.members.end(), account.name) > 0;
            const bool role = member && group.name.rfind("role-", 0) == 0;
            EXPECT_EQ(profile.isBelongingToGroup(group.name), member);
            EXPECT_EQ(profile.isBelongingToGroup(group.gid), member);
            EXPECT_EQ(profile.isBelongingToRole(group.name), role);
            EXPECT_EQ(profile.isBelongingToRole(static_cast<int>(group.gid) - 4100), role);
            if (member) held += " " + group.name;
        }
        EXPECT_EQ(groups(account.name.c_str()), "root " + account.group + held);
    }
    EXPECT_EQ(managed, settings.getMaxUser());
    catalogue().getProfiles(false);
    EXPECT_EQ(sample.builds, 1);

    removeEntry("/etc/group", "net-admin");
    EXPECT_EQ(made([] { return std::to_string(catalogue().getProfiles(true).size()); }), missing("net-admin"));
    EXPECT_EQ(key(catalogue().getProfile("operators")), "operators/1/10001");
    EXPECT_EQ(sample.builds, 2);
}


// A rebuild on another thread, stopped halfway through the tables (a host's build, holding the
// lock as hosts do): lookups meanwhile answer the whole catalogue before it, then the new one.
// A host that overrides the getter is searched through it.
TEST_F(CatalogueTest, LookupsSeeWholeCataloguesWhileAnotherThreadRebuilds) {
    struct : tvc::sample::SampleProfiles {
        void buildProfiles() override {
            if (++builds == 1) return SampleProfiles::buildProfiles();
            std::lock_guard<std::mutex> lock(m_mtx);
            g_profiles.clear();
            g_roles.clear();
            UmProfile viewers("viewers", 2);
            addProfile(viewers);
            halfway.set_value();
            resume.wait();
            UmProfile operators("operators", 1);
            addProfile(operators);
            m_init = true;
        }
        int builds = 0;
        std::promise<void> halfway;
        std::shared_future<void> resume;
    } sample;
    std::promise<void> resume;
    sample.resume = resume.get_future().share();
    sample.setProfileDefinition(sample);
    const auto lookups = [] {
        return Names{key(catalogue().getProfile("operators")), key(catalogue().getProfile(3)),
                     key(catalogue().getRole("role-user-manager"))};
    };
    const Names before = lookups();
    EXPECT_EQ(before, (Names{"operators/1/10001", "maintainers/3/10003", "role-user-manager/1/4101"}));
    std::thread rebuild([] { catalogue().getProfiles(true); });
    sample.halfway.get_future().wait();
    const Names during = lookups();
    resume.set_value();
    rebuild.join();
    EXPECT_EQ(during, before);
    EXPECT_EQ(lookups(), (Names{"operators/1/10001", "nogroup/-4/65534", "nogroup/61434/65534"}));

    struct : ProfileDefinition {
        std::map<int, UmProfile> getProfiles(bool refresh) override {
            auto all = ProfileDefinition::getProfiles(refresh);
            all.emplace(9, UmProfile("viewers", 9));
            return all;
        }
    } extended;
    extended.setProfileDefinition(extended);
    EXPECT_EQ(key(catalogue().getProfile(9)), "viewers/9/10002");
}

}  // namespace

// The free-uid search leaves the name service out only when nsswitch.conf answers the passwd
// database from the files backend alone: one line, the one service "files", no action item.
TEST(NameServiceSources, OnlyOneLineWithFilesAloneCounts) {
    const std::pair<const char*, bool> rows[] = {
        {"passwd: files\n", true},
        {"passwd:files", true},
        {"passwd :  files   # local accounts only\ngroup: files systemd\n", true},
        {"# passwd: files systemd\npasswd: files\n", true},
        {"passwd: files systemd\n", false},
        {"passwd: systemd files\n", false},
        {"passwd: files [NOTFOUND=return] ldap\n", false},
        {"passwd: compat\n", false},
        {"passwd:\n", false},
        {"group: files\nshadow: files\n", false},  // no passwd line: the C library's default
        {"passwd: files\npasswd: ldap\n", false},
        {"passwd: files\nPASSWD: ldap\n", false},
        {"passwdx: files\npasswd: ldap\n", false},
        {"", false},
    };
    for (const auto& [text, alone] : rows)
        EXPECT_EQ(usermanagement::detail::answeredByFilesAlone(text, "passwd"), alone) << text;
}
