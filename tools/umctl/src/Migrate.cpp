// umctl migrate: the account files after a software update (filesSystemMigration), and what
// it did to each account: the managed ones kept their profile or were moved to viewers and
// disabled; system accounts came with the new version or went with the old one.
#include <pwd.h>

#include <iostream>
#include <map>
#include <string>

#include <usermanagement/Migration.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UserDefinition.h>

#include "Command.h"

namespace umctl {

namespace {

// Every account of the password database, by name, with its uid and primary group.
std::map<std::string, std::pair<unsigned int, unsigned int>> accounts() {
    std::map<std::string, std::pair<unsigned int, unsigned int>> all;
    setpwent();
    while (const passwd* entry = getpwent()) all.emplace(entry->pw_name, std::make_pair(entry->pw_uid, entry->pw_gid));
    endpwent();
    return all;
}

int migrate(const Args&) {
    const auto before = accounts();
    usermanagement::filesSystemMigration();
    const auto after = accounts();

    usermanagement::UserDefinition& definition = usermanagement::UserDefinition::GetUserDefinition();
    const unsigned int base = definition.getBaseUid();
    const auto managed = [&](unsigned int uid) { return uid >= base && uid < base + definition.getMaxUser(); };
    usermanagement::ProfileDefinition& profiles = usermanagement::ProfileDefinition::GetProfileDefinition();
    for (const auto& [name, ids] : before) {
        if (!managed(ids.first)) continue;
        const auto now = after.find(name);
        if (now == after.end())
            std::cout << "lost " << printable(name) << "\n";
        else if (now->second.second == ids.second)
            std::cout << "kept " << printable(name) << " profile "
                      << printable(profiles.getProfile(ids.second).getName()) << "\n";
        else
            std::cout << "moved " << printable(name) << " to viewers and disabled\n";
    }
    for (const auto& [name, ids] : after)
        if (!managed(ids.first) && before.count(name) == 0)
            std::cout << "added system account " << printable(name) << "\n";
    for (const auto& [name, ids] : before)
        if (!managed(ids.first) && after.count(name) == 0)
            std::cout << "dropped system account " << printable(name) << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> migrationCommands() {
    return {
        {"migrate", "", 0, 0, migrate},
    };
}

}  // namespace umctl
