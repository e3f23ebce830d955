// umctl profiles, umctl groups USER: the access model of the device.  umctl installs the
// device's configuration file (catalogue and settings) at start-up, as a device host does.
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UmGroup.h>

#include "Command.h"
#include "deviceconfig/DeviceConfig.h"

using systemutilities::LinuxUserSystem;
using usermanagement::ProfileDefinition;
using usermanagement::UmGroup;
using usermanagement::UmProfile;

namespace umctl {

namespace {

Json groupJson(const UmGroup& group) { return {{"gid", group.getGid()}, {"name", group.getName()}}; }

Json profileJson(const UmProfile& profile) {
    Json roles = Json::array();
    for (const usermanagement::UmRole& role : profile.getRoles()) {
        Json granted = Json::array();
        for (const UmGroup& group : role.getGroups()) granted.push_back(groupJson(group));
        roles.push_back({{"name", role.getName()}, {"id", role.getId()}, {"gid", role.getGid()}, {"groups", granted}});
    }
    Json groups = Json::array();
    for (const auto& [gid, name] : profile.m_groupNames) groups.push_back({{"gid", gid}, {"name", name}});
    return {{"name", profile.getName()}, {"id", profile.getId()}, {"gid", profile.getGid()},
            {"roles", roles},            {"groups", groups}};
}

// Every profile in id order in the library's own diagnostic form: the profile line, its roles
// with the groups they grant, then the flattened group list; a blank line between profiles.
// Each line of that form is printed through printable(), as every name umctl prints.
int profiles() {
    const std::map<int, UmProfile> all = ProfileDefinition::GetProfileDefinition().getProfiles(false);
    Json list = Json::array();
    bool first = true;
    for (const auto& entry : all) {
        // Catalogue copies never carry the flattened list; rebuild it for the printout.
        UmProfile profile = entry.second;
        profile.updateList();
        if (jsonOutput()) {
            list.push_back(profileJson(profile));
            continue;
        }
        if (!first) std::cout << "\n";
        std::ostringstream form;
        form << profile;
        std::istringstream lines(form.str());
        for (std::string line; std::getline(lines, line);) std::cout << printable(line) << "\n";
        first = false;
    }
    if (jsonOutput()) emit({{"profiles", list}});
    return kOk;
}

// One "<gid> <name>" line per group of the account, profile group first.
int groups(const std::string& nameOrUid) {
    const Account account = resolveUser(nameOrUid);
    std::vector<UmGroup> list;
    if (!LinuxUserSystem::getGroups(account.uid, list)) throw Failure(Situation::DatabaseLookup, nameOrUid);
    if (jsonOutput()) {
        Json groups = Json::array();
        for (const UmGroup& group : list) groups.push_back(groupJson(group));
        emit({{"groups", groups}});
        return kOk;
    }
    for (const UmGroup& group : list) std::cout << group.m_gid << " " << printable(group.m_name) << "\n";
    return kOk;
}

Run defineProfiles(CLI::App&) { return profiles; }

Run defineGroups(CLI::App& app) {
    const auto account = operand(app, "ACCOUNT", "account name or uid");
    return [account] { return groups(*account); };
}

}  // namespace

void installConfiguration() {
    // The default file may be missing (the library's defaults); one named with --config may not.
    tvc::deviceconfig::installDeviceConfiguration(options().config, options().configGiven);
}

std::vector<Command> accessCommands() {
    return {
        {"profiles", "the device's profiles with their roles and the groups they grant", "umctl profiles",
         defineProfiles},
        {"groups", "the groups an account belongs to, profile group first", "umctl groups admin", defineGroups},
    };
}

}  // namespace umctl
