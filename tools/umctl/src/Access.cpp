// umctl profiles, umctl groups USER: the access model of the device.  umctl installs the
// sample device's catalogue at start-up, as a device host installs its own.
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UmGroup.h>

#include "Command.h"
#include "sampledevice/SampleCatalogue.h"

using systemutilities::LinuxUserSystem;
using usermanagement::ProfileDefinition;
using usermanagement::UmGroup;
using usermanagement::UmProfile;

namespace umctl {

namespace {

// Every profile in id order in the library's own diagnostic form: the profile line, its roles
// with the groups they grant, then the flattened group list; a blank line between profiles.
// Each line of that form is printed through printable(), as every name umctl prints.
int profiles(const Args&) {
    const std::map<int, UmProfile> all = ProfileDefinition::GetProfileDefinition().getProfiles(false);
    bool first = true;
    for (const auto& entry : all) {
        // Catalogue copies never carry the flattened list; rebuild it for the printout.
        UmProfile profile = entry.second;
        profile.updateList();
        if (!first) std::cout << "\n";
        std::ostringstream form;
        form << profile;
        std::istringstream lines(form.str());
        for (std::string line; std::getline(lines, line);) std::cout << printable(line) << "\n";
        first = false;
    }
    return kOk;
}

// One "<gid> <name>" line per group of the account, profile group first.
int groups(const Args& args) {
    std::vector<UmGroup> list;
    unsigned int uid = 0;
    const bool found = parseId(args[0], uid) ? LinuxUserSystem::getGroups(uid, list)
                                             : LinuxUserSystem::getGroups(args[0].c_str(), list);
    if (!found) notFound(usermanagement::UMError::UserNotFound, "no such user: " + args[0]);
    for (const UmGroup& group : list) std::cout << group.m_gid << " " << printable(group.m_name) << "\n";
    return kOk;
}

}  // namespace

void installCatalogue() {
    static tvc::sample::SampleCatalogue catalogue;
    catalogue.setProfileDefinition(catalogue);
    static tvc::sample::SampleDefinition definition;
    definition.setUserDefinition(definition);
}

std::vector<Command> accessCommands() {
    return {
        {"profiles", "", 0, 0, profiles},
        {"groups", "NAME|UID", 1, 1, groups},
    };
}

}  // namespace umctl
