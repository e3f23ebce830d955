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

int whoami() {
    const usermanagement::SystemPermission snapshot;
    const int groups = getgroups(0, nullptr);
    if (jsonOutput()) {
        emit({{"ruid", snapshot.getRuid()},
              {"euid", snapshot.getEuid()},
              {"suid", snapshot.getSuid()},
              {"rgid", snapshot.getRgid()},
              {"egid", snapshot.getEgid()},
              {"sgid", snapshot.getSgid()},
              {"groups", groups}});
        return kOk;
    }
    std::cout << "ruid: " << snapshot.getRuid() << "\neuid: " << snapshot.getEuid() << "\nsuid: " << snapshot.getSuid()
              << "\nrgid: " << snapshot.getRgid() << "\negid: " << snapshot.getEgid()
              << "\nsgid: " << snapshot.getSgid() << "\ngroups: " << groups << "\n";
    return kOk;
}

int tally(const std::string& nameOrUid) {
    const unsigned int uid = resolveUser(nameOrUid).uid;
    const std::string path = usermanagement::UserDefinition::GetUserDefinition().getTallyFilePath();
    const auto failures = usermanagement::utilities::getLockCount(uid, path);
    if (jsonOutput()) {
        emit({{"uid", uid}, {"failures", failures}});
        return kOk;
    }
    std::cout << "uid: " << uid << "\nfailures: " << failures << "\n";
    return kOk;
}

Run defineWhoami(CLI::App&) { return whoami; }

Run defineTally(CLI::App& app) {
    const auto account = operand(app, "ACCOUNT", "account name or uid");
    return [account] { return tally(*account); };
}

}  // namespace

std::vector<Command> identityCommands() {
    return {
        {"whoami", "the real, effective and saved ids of the thread that runs the command",
         "umctl --as viewer whoami", defineWhoami},
        {"tally", "an account's failed-login count", "umctl tally operator", defineTally},
    };
}

}  // namespace umctl
