// umctl user NAME|UID, umctl group NAME|GID: lookups in the system's account database.
#include <iostream>

#include <systemutilities/LinuxUserSystem.h>

#include "Command.h"

using systemutilities::LinuxUserSystem;

namespace umctl {

namespace {

// Codes of usermanagement::UMException: 5 is "User not found"; an unknown group is reported
// as 2, "Role error", since the device's groups are its profiles and roles.
constexpr int kUserNotFound = 5;
constexpr int kRoleError = 2;

int user(const Args& args) {
    unsigned int uid = 0;
    unsigned int profile = 0;
    std::string name = args[0];
    bool found = parseId(args[0], uid) ? LinuxUserSystem::getUserName(uid, name, profile)
                                       : LinuxUserSystem::getUserIds(name.c_str(), &uid, &profile);
    if (!found) notFound(kUserNotFound, "no such user: " + args[0]);
    std::cout << "uid: " << uid << "\nname: " << name << "\nprofile gid: " << profile << "\n";
    return kOk;
}

int group(const Args& args) {
    unsigned int gid = 0;
    std::string name = args[0];
    bool found = parseId(args[0], gid) ? LinuxUserSystem::getGroupName(gid, name)
                                       : LinuxUserSystem::getGroupGid(name.c_str(), gid);
    if (!found) notFound(kRoleError, "no such group: " + args[0]);
    std::cout << "gid: " << gid << "\nname: " << name << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> lookupCommands() {
    return {
        {"user", "NAME|UID", 1, 1, user},
        {"group", "NAME|GID", 1, 1, group},
    };
}

}  // namespace umctl
