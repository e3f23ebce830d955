#include <usermanagement/ProfileDefinition.h>

#include <memory>

#include <usermanagement/UMException.h>

#include "foundation/Provider.h"

namespace usermanagement {

namespace {
// The built-in catalogue, in place from load time on.
ProfileDefinition g_defaultProfileDefinition;
}  // namespace

std::map<int, UmProfile> ProfileDefinition::g_profiles;
std::map<int, UmRole> ProfileDefinition::g_roles;
std::atomic<bool> ProfileDefinition::m_init{false};
// Hosts built when m_init was a plain bool read and write the same byte.
static_assert(sizeof(std::atomic<bool>) == sizeof(bool) && alignof(std::atomic<bool>) == alignof(bool) &&
                  std::atomic<bool>::is_always_lock_free,
              "m_init keeps the layout of a bool");
std::mutex ProfileDefinition::m_mtx;
// Constant-initialised, so the catalogue is in place before any host code runs.
ProfileDefinition* ProfileDefinition::m_ptrDefaultProfileDefinition = &g_defaultProfileDefinition;

namespace {

// The catalogue readers use: a finished build, never changed once published.  Any thread may
// read while another rebuilds, so a build fills g_profiles/g_roles (the builder's tables) and
// only a copy of the finished tables is published, in one pointer store.  A reader holds the
// snapshot it loaded for as long as it searches it, whatever is published meanwhile.
struct Catalogue {
    std::map<int, UmProfile> profiles;
    std::map<int, UmRole> roles;
};
using Snapshot = std::shared_ptr<const Catalogue>;

// Read with std::atomic_load; replaced under g_publishing with std::atomic_store.
Snapshot g_published;
// One build at a time, whichever threads ask: a build clears and refills the shared tables.
std::mutex g_building;
// Serialises the replacements of g_published (a rebuild's, addProfile's copy-and-add).  Taken
// last and alone, after m_mtx is released, so no order of the three locks can deadlock.
std::mutex g_publishing;
// True on the thread that runs buildProfiles for the library: its addProfile calls store into
// the tables being built, and its lookups (a host build that looks something up) answer from
// the published catalogue instead of waiting for the build they are part of.
thread_local bool t_building = false;

void publish(Snapshot next) {
    std::lock_guard<std::mutex> lock(g_publishing);
    std::atomic_store(&g_published, std::move(next));
}

// The catalogue in use: built first when `refresh` asks for it, when none was published yet, or
// when m_init was cleared (the bookkeeping hosts and tests use to ask for a fresh build).
Snapshot current(ProfileDefinition& catalogue, bool refresh) {
    static const Snapshot empty = std::make_shared<const Catalogue>();
    if (t_building) {
        Snapshot published = std::atomic_load(&g_published);
        return published ? published : empty;
    }
    if (!refresh) {
        Snapshot published = std::atomic_load(&g_published);
        if (published && ProfileDefinition::m_init) return published;
    }
    std::lock_guard<std::mutex> building(g_building);
    if (!refresh) {  // another thread may have built it while this one waited
        Snapshot published = std::atomic_load(&g_published);
        if (published && ProfileDefinition::m_init) return published;
    }
    struct Building {
        Building() { t_building = true; }
        ~Building() { t_building = false; }
    } scope;
    // A build that throws publishes nothing: the catalogue in use stays.
    catalogue.buildProfiles();
    Snapshot built;
    {
        std::lock_guard<std::mutex> tables(ProfileDefinition::m_mtx);
        built = std::make_shared<const Catalogue>(Catalogue{ProfileDefinition::g_profiles, ProfileDefinition::g_roles});
    }
    publish(built);
    ProfileDefinition::m_init = true;
    return built;
}

// Whether `catalogue` answers getProfiles (getRoles) with the library's own getter, so that a
// lookup may search the published catalogue in place instead of a copy of all of it.  A host
// that overrides the getter is searched through it, as before.  The final overrider is read
// with GCC's bound member function extension; where it is missing, lookups use the getters.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpmf-conversions"
using ProfilesGetter = std::map<int, UmProfile> (*)(ProfileDefinition*, bool);
using RolesGetter = std::map<int, UmRole> (*)(ProfileDefinition*);
bool ownProfilesGetter(ProfileDefinition& catalogue) {
    return (ProfilesGetter)(catalogue.*(&ProfileDefinition::getProfiles)) ==
           (ProfilesGetter)(g_defaultProfileDefinition.*(&ProfileDefinition::getProfiles));
}
bool ownRolesGetter(ProfileDefinition& catalogue) {
    return (RolesGetter)(catalogue.*(&ProfileDefinition::getRoles)) ==
           (RolesGetter)(g_defaultProfileDefinition.*(&ProfileDefinition::getRoles));
}
#pragma GCC diagnostic pop
#else
bool ownProfilesGetter(ProfileDefinition&) { return false; }
bool ownRolesGetter(ProfileDefinition&) { return false; }
#endif

// Placeholders answered by lookups that find nothing.  Built before the table is read, so a
// device without "nogroup" fails every lookup the same way, found or not.
UmProfile noProfile() { return UmProfile("nogroup", -4); }
UmRole noRole() { return UmRole("nogroup", -1); }

// The one search behind the six lookups: a copy of the first entry, in ascending id order, that
// `matches` (id, value), or `notFound`.
template <class Value, class Table, class Matches>
Value firstMatch(Value notFound, const Table& table, Matches matches) {
    for (const auto& [id, value] : table)
        if (matches(id, value)) return value;
    return notFound;
}

template <class Matches>
UmProfile findProfile(ProfileDefinition& catalogue, Matches matches) {
    UmProfile notFound = noProfile();
    if (ownProfilesGetter(catalogue)) return firstMatch(std::move(notFound), current(catalogue, false)->profiles, matches);
    return firstMatch(std::move(notFound), catalogue.getProfiles(false), matches);
}

template <class Matches>
UmRole findRole(ProfileDefinition& catalogue, Matches matches) {
    UmRole notFound = noRole();
    if (ownRolesGetter(catalogue)) return firstMatch(std::move(notFound), current(catalogue, false)->roles, matches);
    return firstMatch(std::move(notFound), catalogue.getRoles(), matches);
}

}  // namespace

std::map<int, UmProfile> ProfileDefinition::getProfiles(bool refresh) { return current(*this, refresh)->profiles; }

std::map<int, UmRole> ProfileDefinition::getRoles() { return current(*this, false)->roles; }

UmProfile ProfileDefinition::getProfile(const std::string& name) {
    return findProfile(*this, [&](int, const UmProfile& p) { return p.m_name == name; });
}

UmProfile ProfileDefinition::getProfile(int id) {
    return findProfile(*this, [&](int key, const UmProfile&) { return key == id; });
}

UmProfile ProfileDefinition::getProfile(unsigned int gid) {
    return findProfile(*this, [&](int, const UmProfile& p) { return p.m_gid == gid; });
}

UmRole ProfileDefinition::getRole(const std::string& name) {
    return findRole(*this, [&](int, const UmRole& r) { return r.m_name == name; });
}

UmRole ProfileDefinition::getRole(int id) {
    return findRole(*this, [&](int key, const UmRole&) { return key == id; });
}

// Hosts call this with role ids held in unsigned variables; it is keyed like getRole(int).
UmRole ProfileDefinition::getRole(unsigned int id) { return ProfileDefinition::getRole(static_cast<int>(id)); }

ProfileDefinition::~ProfileDefinition() = default;

void ProfileDefinition::buildProfiles() {
    std::lock_guard<std::mutex> lock(m_mtx);
    g_profiles.clear();
    g_roles.clear();
    UmProfile root("root", 1);
    UmProfile rootSystem("root", -1);
    UmProfile webServer("www-data", -2);
    root.updateList();
    addProfile(root);
    addProfile(rootSystem);
    addProfile(webServer);
    m_init = true;
}

void ProfileDefinition::setProfileDefinition(ProfileDefinition& definition) {
    m_ptrDefaultProfileDefinition = &definition;
}

ProfileDefinition& ProfileDefinition::GetProfileDefinition() {
    return detail::installedProvider(m_ptrDefaultProfileDefinition, "No Profile Database");
}

void ProfileDefinition::addProfile(UmProfile& profile) {
    if (t_building) {
        g_profiles.emplace(profile.getId(), profile);
        for (const UmRole& role : profile.getRoles()) g_roles.emplace(role.getId(), role);
        return;
    }
    // Outside a build the entries go to the catalogue in use: a copy of it with them added
    // replaces it, so that no reader sees the tables change under it.
    std::lock_guard<std::mutex> lock(g_publishing);
    const Snapshot published = std::atomic_load(&g_published);
    auto next = published ? std::make_shared<Catalogue>(*published) : std::make_shared<Catalogue>();
    next->profiles.emplace(profile.getId(), profile);
    for (const UmRole& role : profile.getRoles()) next->roles.emplace(role.getId(), role);
    std::atomic_store(&g_published, Snapshot(std::move(next)));
}

unsigned int ProfileDefinition::getRoleBaseGid() { return 4100; }
unsigned int ProfileDefinition::getProfileBaseGid() { return 10000; }

}  // namespace usermanagement
