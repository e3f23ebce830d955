// umctl whoami: the ids of the calling thread as the library snapshots them.
// umctl tally NAME|UID: an account's failed-login count in the configured pam_tally2 file.
#include <unistd.h>

#include <iostream>
#include <string>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UserDefinition.h>
#include <usermanagement/Utilities.h>

#include "Command.h"

namespace umctl {

namespace {

// Code 5 of usermanagement::UMException: "User not found".
constexpr int kUserNotFound = 5;

int whoami(const Args&) {
    const usermanagement::SystemPermission snapshot;
    std::cout << "ruid: " << snapshot.getRuid() << "\neuid: " << snapshot.getEuid() << "\nsuid: " << snapshot.getSuid()
              << "\nrgid: " << snapshot.getRgid() << "\negid: " << snapshot.getEgid() << "\nsgid: " << snapshot.getSgid()
              << "\ngroups: " << getgroups(0, nullptr) << "\n";
    return kOk;
}

int tally(const Args& args) {
    unsigned int uid = 0;
    unsigned int profile = 0;
    std::string name = args[0];
    bool found = parseId(args[0], uid) ? systemutilities::LinuxUserSystem::getUserName(uid, name, profile)
                                       : systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &uid, &profile);
    if (!found) notFound(kUserNotFound, "no such user: " + args[0]);
    const std::string path = usermanagement::UserDefinition::GetUserDefinition().getTallyFilePath();
    std::cout << "uid: " << uid << "\nfailures: " << usermanagement::utilities::getLockCount(uid, path) << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> identityCommands() {
    return {
        {"whoami", "", 0, 0, whoami},
        {"tally", "NAME|UID", 1, 1, tally},
    };
}

}  // namespace umctl
