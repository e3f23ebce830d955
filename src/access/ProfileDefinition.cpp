#include <usermanagement/ProfileDefinition.h>

#include <usermanagement/UMException.h>

#include "foundation/Provider.h"

namespace usermanagement {

namespace {
// The built-in catalogue, in place from load time on.
ProfileDefinition g_defaultProfileDefinition;
}  // namespace

std::map<int, UmProfile> ProfileDefinition::g_profiles;
std::map<int, UmRole> ProfileDefinition::g_roles;
bool ProfileDefinition::m_init = false;
std::mutex ProfileDefinition::m_mtx;
// Constant-initialised, so the catalogue is in place before any host code runs.
ProfileDefinition* ProfileDefinition::m_ptrDefaultProfileDefinition = &g_defaultProfileDefinition;

namespace {

// Placeholders answered by lookups that find nothing.  Built before the table is read, so a
// device without "nogroup" fails every lookup the same way, found or not.
UmProfile noProfile() { return UmProfile("nogroup", -4); }
UmRole noRole() { return UmRole("nogroup", -1); }

}  // namespace

std::map<int, UmProfile> ProfileDefinition::getProfiles(bool refresh) {
    if (refresh || !m_init) {
        buildProfiles();
        m_init = true;
    }
    return g_profiles;
}

std::map<int, UmRole> ProfileDefinition::getRoles() {
    if (!m_init) {
        buildProfiles();
        m_init = true;
    }
    return g_roles;
}

// The one search behind the six lookups: the first entry, in ascending id order, that
// `matches` (id, value), or `notFound`.  The placeholder exists before the table is read, and
// the table is the one the virtual getter returns, so a host catalogue that overrides the
// getter is searched as well.
template <class Value, class Table, class Matches>
Value firstMatch(Value notFound, Table table, Matches matches) {
    for (const auto& [id, value] : table())
        if (matches(id, value)) return value;
    return notFound;
}

UmProfile ProfileDefinition::getProfile(const std::string& name) {
    return firstMatch(noProfile(), [this] { return getProfiles(false); },
                      [&](int, const UmProfile& p) { return p.m_name == name; });
}

UmProfile ProfileDefinition::getProfile(int id) {
    return firstMatch(noProfile(), [this] { return getProfiles(false); },
                      [&](int key, const UmProfile&) { return key == id; });
}

UmProfile ProfileDefinition::getProfile(unsigned int gid) {
    return firstMatch(noProfile(), [this] { return getProfiles(false); },
                      [&](int, const UmProfile& p) { return p.m_gid == gid; });
}

UmRole ProfileDefinition::getRole(const std::string& name) {
    return firstMatch(noRole(), [this] { return getRoles(); },
                      [&](int, const UmRole& r) { return r.m_name == name; });
}

UmRole ProfileDefinition::getRole(int id) {
    return firstMatch(noRole(), [this] { return getRoles(); },
                      [&](int key, const UmRole&) { return key == id; });
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
    g_profiles.emplace(profile.getId(), profile);
    for (const UmRole& role : profile.getRoles()) g_roles.emplace(role.getId(), role);
}

unsigned int ProfileDefinition::getRoleBaseGid() { return 4100; }
unsigned int ProfileDefinition::getProfileBaseGid() { return 10000; }

}  // namespace usermanagement
