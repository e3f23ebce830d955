// umctl migrate: the account files after a software update (filesSystemMigration), and what
// it did to each account: the managed ones kept their profile or were moved to viewers and
// disabled; system accounts came with the new version or went with the old one.  With --json
// one object lists them, and the migration's own progress lines go to stderr.
#include <pwd.h>
#include <unistd.h>

#include <cstdio>

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

// The library's migration, which prints its progress on stdout.  With --json stdout carries
// the answer alone, so the progress goes to stderr meanwhile.
void runMigration() {
    if (!jsonOutput()) {
        usermanagement::filesSystemMigration();
        return;
    }
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const auto restore = [saved] {
        std::fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
    };
    try {
        usermanagement::filesSystemMigration();
    } catch (...) {
        restore();
        throw;
    }
    restore();
}

int migrate() {
    const auto before = accounts();
    runMigration();
    const auto after = accounts();

    usermanagement::UserDefinition& definition = usermanagement::UserDefinition::GetUserDefinition();
    const unsigned int base = definition.getBaseUid();
    const auto managed = [&](unsigned int uid) { return uid >= base && uid < base + definition.getMaxUser(); };
    usermanagement::ProfileDefinition& profiles = usermanagement::ProfileDefinition::GetProfileDefinition();
    Json accountsJson = Json::array(), added = Json::array(), dropped = Json::array();
    for (const auto& [name, ids] : before) {
        if (!managed(ids.first)) continue;
        const auto now = after.find(name);
        if (now == after.end()) {
            accountsJson.push_back({{"name", name}, {"outcome", "lost"}});
            if (!jsonOutput()) std::cout << "lost " << printable(name) << "\n";
        } else if (now->second.second == ids.second) {
            const std::string profile = profiles.getProfile(ids.second).getName();
            accountsJson.push_back({{"name", name}, {"outcome", "kept"}, {"profile", profile}});
            if (!jsonOutput()) std::cout << "kept " << printable(name) << " profile " << printable(profile) << "\n";
        } else {
            accountsJson.push_back({{"name", name}, {"outcome", "moved"}, {"profile", "viewers"}, {"active", false}});
            if (!jsonOutput()) std::cout << "moved " << printable(name) << " to viewers and disabled\n";
        }
    }
    for (const auto& [name, ids] : after)
        if (!managed(ids.first) && before.count(name) == 0) {
            added.push_back(name);
            if (!jsonOutput()) std::cout << "added system account " << printable(name) << "\n";
        }
    for (const auto& [name, ids] : before)
        if (!managed(ids.first) && after.count(name) == 0) {
            dropped.push_back(name);
            if (!jsonOutput()) std::cout << "dropped system account " << printable(name) << "\n";
        }
    if (jsonOutput())
        emit({{"accounts", accountsJson}, {"systemAccountsAdded", added}, {"systemAccountsDropped", dropped}});
    return kOk;
}

Run defineMigrate(CLI::App&) { return migrate; }

}  // namespace

std::vector<Command> migrationCommands() {
    return {
        {"migrate", "rebuild the account files after a software update and carry the accounts over",
         "umctl migrate", defineMigrate},
    };
}

}  // namespace umctl
