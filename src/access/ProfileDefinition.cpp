#include <usermanagement/ProfileDefinition.h>

#include <usermanagement/UMException.h>

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

UmProfile ProfileDefinition::getProfile(const std::string& name) {
    UmProfile result = noProfile();
    const std::map<int, UmProfile> profiles = getProfiles(false);
    for (const auto& entry : profiles) {
        if (entry.second.m_name == name) {
            result = entry.second;
            break;
        }
    }
    return result;
}

UmProfile ProfileDefinition::getProfile(int id) {
    UmProfile result = noProfile();
    const std::map<int, UmProfile> profiles = getProfiles(false);
    auto found = profiles.find(id);
    if (found != profiles.end()) result = found->second;
    return result;
}

UmProfile ProfileDefinition::getProfile(unsigned int gid) {
    UmProfile result = noProfile();
    const std::map<int, UmProfile> profiles = getProfiles(false);
    for (const auto& entry : profiles) {
        if (entry.second.m_gid == gid) {
            result = entry.second;
            break;
        }
    }
    return result;
}

UmRole ProfileDefinition::getRole(const std::string& name) {
    UmRole result = noRole();
    const std::map<int, UmRole> roles = getRoles();
    for (const auto& entry : roles) {
        if (entry.second.m_name == name) {
            result = entry.second;
            break;
        }
    }
    return result;
}

UmRole ProfileDefinition::getRole(int id) {
    UmRole result = noRole();
    const std::map<int, UmRole> roles = getRoles();
    auto found = roles.find(id);
    if (found != roles.end()) result = found->second;
    return result;
}

// Hosts call this with role ids held in unsigned variables; it is keyed like getRole(int).
UmRole ProfileDefinition::getRole(unsigned int id) {
    UmRole result = noRole();
    const std::map<int, UmRole> roles = getRoles();
    auto found = roles.find(static_cast<int>(id));
    if (found != roles.end()) result = found->second;
    return result;
}

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
    // Not detail::raise: this failure names the missing catalogue as its user, not the caller.
    if (m_ptrDefaultProfileDefinition == nullptr)
        throw UMException(UMError::NothingInstalled, "No Profile Database", "No Profile Database", true);
    return *m_ptrDefaultProfileDefinition;
}

void ProfileDefinition::addProfile(UmProfile& profile) {
    g_profiles.emplace(profile.getId(), profile);
    for (const UmRole& role : profile.getRoles()) g_roles.emplace(role.getId(), role);
}

unsigned int ProfileDefinition::getRoleBaseGid() { return 4100; }
unsigned int ProfileDefinition::getProfileBaseGid() { return 10000; }

}  // namespace usermanagement
