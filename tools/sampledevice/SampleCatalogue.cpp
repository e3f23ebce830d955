#include "SampleCatalogue.h"

#include <grp.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "SampleDevice.h"

using usermanagement::UmGroup;
using usermanagement::UmProfile;
using usermanagement::UmRole;

namespace tvc::sample {

namespace {

bool hasGroup(const std::string& name) {
    struct group entry {};
    struct group* found = nullptr;
    std::vector<char> buffer(16384);
    return getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
}

}  // namespace

void SampleCatalogue::buildProfiles() {
    // Everything is resolved before the tables are touched: a role or granted group missing
    // from the device throws here and leaves the catalogue that was in place.
    std::map<std::string, UmRole> roles;
    for (const Role& described : sampleDevice().roles) {
        UmRole role(described.name, -1);
        for (const std::string& granted : described.grants) role.add(UmGroup(granted));
        roles.emplace(described.name, role);
    }
    std::vector<UmProfile> profiles;
    for (const Profile& described : sampleDevice().profiles) {
        // The device offers the profiles whose group it has: a software version that drops a
        // profile group (see the migration) drops the profile with it.
        if (!hasGroup(described.name)) continue;
        UmProfile profile(described.name, described.id);
        for (const std::string& role : described.roles) profile.add(roles.at(role));
        profiles.push_back(profile);
    }

    std::lock_guard<std::mutex> lock(m_mtx);
    g_profiles.clear();
    g_roles.clear();
    for (UmProfile& entry : profiles) addProfile(entry);
    m_init = true;
}

}  // namespace tvc::sample
