// umctl user NAME|UID, umctl group NAME|GID: lookups in the system's account database.
#include <iostream>

#include <systemutilities/LinuxUserSystem.h>

#include "Command.h"

using systemutilities::LinuxUserSystem;

namespace umctl {

namespace {

int user(const Args& args) {
    const Account account = resolveUser(args[0]);
    std::cout << "uid: " << account.uid << "\nname: " << printable(account.name)
              << "\nprofile gid: " << account.profileGid << "\n";
    return kOk;
}

// An unknown group is reported as usermanagement::UMException code 2, "Role error", since
// the device's groups are its profiles and roles.

int group(const Args& args) {
    unsigned int gid = 0;
    std::string name = args[0];
    bool found = parseId(args[0], gid) ? LinuxUserSystem::getGroupName(gid, name)
                                       : LinuxUserSystem::getGroupGid(name.c_str(), gid);
    if (!found) notFound(usermanagement::UMError::RoleError, "no such group: " + args[0]);
    std::cout << "gid: " << gid << "\nname: " << printable(name) << "\n";
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
