// Runs the migration of the sample device step by step, as filesSystemMigration() does, and
// with TVC_MIGRATION_HOLD=<step> stops at that step: prints "held <step>" and waits to be
// killed.  Steps: "group" (the group file installed), "passwd" (passwd and shadow installed),
// "profiles" (half of the accounts given their profiles).  Exits 0 after a whole run, 1 with
// the failure on stderr.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <string>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/Migration.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UserDefinition.h>

#include "sampledevice/SampleCatalogue.h"

using namespace usermanagement;

namespace {

void holdAt(const char* step) {
    const char* hold = std::getenv("TVC_MIGRATION_HOLD");
    if (hold == nullptr || std::string(hold) != step) return;
    std::printf("held %s\n", step);
    std::fflush(stdout);
    for (;;) pause();
}

void migrate() {
    UserDefinition& d = UserDefinition::GetUserDefinition();
    std::map<std::string, unsigned int> userGids;
    {
        SystemPermission permission;
        permission.setRealPermissions();
        {
            FileSystemUpdate group(d.getGroupFilePath(), d.getGroupTmpFilePath(), "/etc/group.orig", false);
            group.prepareSystemFiles();
            updateGroupFile(group);
            group.finalyzeSystemFiles();
        }
        holdAt("group");
        FileSystemUpdate passwords(d.getPasswordFilePath(), d.getPasswordTmpFilePath(), "/etc/passwd.orig", true);
        FileSystemUpdate shadows(d.getShadowFilePath(), d.getShadowTmpFilePath(), "/etc/shadow.orig", false);
        passwords.prepareSystemFiles();
        shadows.prepareSystemFiles();
        userGids = updatePasswordFile(passwords, shadows);
        finalyzeSystemFilesTogether(passwords, shadows);
        holdAt("passwd");
    }
    auto half = userGids.begin();
    std::advance(half, userGids.size() / 2);
    updateProfiles(std::map<std::string, unsigned int>(userGids.begin(), half));
    holdAt("profiles");
    updateProfiles(std::map<std::string, unsigned int>(half, userGids.end()));
}

}  // namespace

int main() {
    tvc::sample::SampleDefinition definition;
    definition.setUserDefinition(definition);
    tvc::sample::SampleCatalogue catalogue;
    catalogue.setProfileDefinition(catalogue);
    try {
        migrate();
    } catch (const tarvicexception::TvcException& e) {
        std::fprintf(stderr, "error %d %s %s\n", e.getErrorId(), e.what(), e.getUser().c_str());
        return 1;
    }
    return 0;
}
