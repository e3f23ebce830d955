// umctl user NAME|UID, umctl group NAME|GID: lookups in the system's account database.
#include <iostream>

#include <systemutilities/LinuxUserSystem.h>

#include "Command.h"

using systemutilities::LinuxUserSystem;

namespace umctl {

namespace {

int user(const std::string& nameOrUid) {
    const Account account = resolveUser(nameOrUid);
    if (jsonOutput()) {
        emit({{"uid", account.uid}, {"name", account.name}, {"profileGid", account.profileGid}});
        return kOk;
    }
    std::cout << "uid: " << account.uid << "\nname: " << printable(account.name)
              << "\nprofile gid: " << account.profileGid << "\n";
    return kOk;
}

int group(const std::string& nameOrGid) {
    setSubject(nameOrGid);
    unsigned int gid = 0;
    std::string name = nameOrGid;
    const bool found = parseId(nameOrGid, gid) ? LinuxUserSystem::getGroupName(gid, name)
                                               : LinuxUserSystem::getGroupGid(name.c_str(), gid);
    if (!found) throw Failure(Situation::NoSuchGroup, nameOrGid);
    if (jsonOutput()) {
        emit({{"gid", gid}, {"name", name}});
        return kOk;
    }
    std::cout << "gid: " << gid << "\nname: " << printable(name) << "\n";
    return kOk;
}

Run defineUser(CLI::App& app) {
    const auto account = operand(app, "ACCOUNT", "account name or uid");
    return [account] { return user(*account); };
}

Run defineGroup(CLI::App& app) {
    const auto group_ = operand(app, "GROUP", "group name or gid");
    return [group_] { return group(*group_); };
}

}  // namespace

std::vector<Command> lookupCommands() {
    return {
        {"user", "an account's uid, name and profile group, from the system's account database",
         "umctl user admin", defineUser},
        {"group", "a group's gid and name, from the system's group database", "umctl group 4101", defineGroup},
    };
}

}  // namespace umctl
