// umctl whoami: the ids of the calling thread as the library snapshots them.
// umctl tally NAME|UID: an account's failed-login count in the configured pam_tally2 file.
#include <unistd.h>

#include <iostream>
#include <string>

#include <usermanagement/SystemPermission.h>
#include <usermanagement/UserDefinition.h>
#include <usermanagement/Utilities.h>

#include "Command.h"

namespace umctl {

namespace {

int whoami(const Args&) {
    const usermanagement::SystemPermission snapshot;
    std::cout << "ruid: " << snapshot.getRuid() << "\neuid: " << snapshot.getEuid() << "\nsuid: " << snapshot.getSuid()
              << "\nrgid: " << snapshot.getRgid() << "\negid: " << snapshot.getEgid()
              << "\nsgid: " << snapshot.getSgid() << "\ngroups: " << getgroups(0, nullptr) << "\n";
    return kOk;
}

int tally(const Args& args) {
    const unsigned int uid = resolveUser(args[0]).uid;
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
