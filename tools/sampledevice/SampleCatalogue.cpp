#include "SampleCatalogue.h"

#include <mutex>
#include <vector>

using usermanagement::UmGroup;
using usermanagement::UmProfile;
using usermanagement::UmRole;

namespace tvc::sample {

void SampleCatalogue::buildProfiles() {
    // Everything is resolved before the tables are touched: a group missing from the device
    // throws here and leaves the catalogue that was in place.
    UmRole userManager("role-user-manager", -1);
    UmRole configureSelf("role-user-configure-self", -1);
    UmRole networkConfigure("role-network-configure", -1);
    networkConfigure.add(UmGroup("net-admin"));
    UmRole logRead("role-log-read", -1);
    logRead.add(UmGroup("log-read"));

    const int base = static_cast<int>(getProfileBaseGid());
    auto profile = [base](const char* name, std::vector<const UmRole*> roles) {
        UmProfile made(name, 0);
        made.m_id = static_cast<int>(made.m_gid) - base;
        for (const UmRole* role : roles) made.add(*role);
        return made;
    };
    std::vector<UmProfile> profiles{
        profile("administrators", {&userManager, &configureSelf, &networkConfigure, &logRead}),
        profile("operators", {&configureSelf, &networkConfigure, &logRead}),
        profile("viewers", {&configureSelf, &logRead}),
        profile("maintainers", {&configureSelf, &logRead}),
        UmProfile("root", -1),
        UmProfile("www-data", -2),
    };

    std::lock_guard<std::mutex> lock(m_mtx);
    g_profiles.clear();
    g_roles.clear();
    for (UmProfile& entry : profiles) addProfile(entry);
    m_init = true;
}

}  // namespace tvc::sample
