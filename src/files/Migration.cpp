// The migration of the account files after a software update (Migration.h).
//
// The new files are built from the reference copies of the new version and the managed
// accounts of the live files only: nothing of a previous, possibly interrupted run is read
// back as such, so running the migration again gives the same files.
#include <usermanagement/Migration.h>

#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/Rbac.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>

#include "accounts/AccountGuards.h"
#include "files/EntryCopy.h"

namespace usermanagement {

namespace {

using detail::EntryAction;
using detail::EntryReader;
using detail::GroupFile;
using detail::PasswdFile;
using detail::ShadowFile;

const char* const kGroupReference = "/etc/group.orig";
const char* const kPasswordReference = "/etc/passwd.orig";
const char* const kShadowReference = "/etc/shadow.orig";

// nobody keeps its high id on every version: it is a system account, never a managed one.
constexpr unsigned int kNobodyUid = 65534;

// Writes one entry to a temporary file.  Hosts of the migration match on the text in the
// exception's user field (message empty), so the failure is built by hand.
template <class File>
void writeEntry(FILE* target, const typename File::Entry& entry, const std::string& failure) {
    std::string line;
    bool written = false;
    if (target != nullptr) {
        if (File::appendPlain(line, entry))
            written = std::fwrite(line.data(), 1, line.size(), target) == line.size();
        else
            written = File::write(entry, target) == 0;
    }
    if (!written) throw UMSystemErrorException(UMSystemError::FileContents, failure, true);
}

}  // namespace

void updateGroupFile(FileSystemUpdate& groupTransaction) {
    setgrent();
    detail::copyEntriesFrom<GroupFile>(
        groupTransaction, groupTransaction.m_origFile, groupTransaction.m_origFilePath,
        [](const struct group&) { return EntryAction::Write; }, "updateGroupFile",
        "updateGroupFile error in writing to " + groupTransaction.m_tmpFilePath);
    endgrent();
}

void updateShadowFile(FileSystemUpdate& shadows, const char* name, bool fromReference) {
    FILE* source = fromReference ? shadows.m_origFile : shadows.m_file;
    const std::string& path = fromReference ? shadows.m_origFilePath : shadows.m_filePath;
    // The search goes on where the previous one stopped: with the shadow entries in the order of
    // the passwd entries, each stream is read once over a whole rewrite.  A file in another
    // order (an entry added by another tool, a hand edit) must not cost an account its password
    // (its holder could no longer log in): when the rest of the stream has no entry of that
    // name, the search starts over once from the top.
    const bool fromTop = source != nullptr && ftello(source) == 0;
    for (int pass = fromTop ? 1 : 0; pass < 2; ++pass) {
        if (pass == 1 && !fromTop) rewind(source);
        EntryReader<ShadowFile> reader(source, path, "updateShadowFile");
        while (struct spwd* entry = reader.next()) {
            if (std::strcmp(entry->sp_namp, name) != 0) continue;
            writeEntry<ShadowFile>(shadows.m_tmpFile, *entry,
                                   "updateEntryInShadowFile error in writing to " + shadows.m_tmpFilePath);
            endspent();
            return;
        }
    }
    endspent();
}

std::map<std::string, unsigned int> updatePasswordFile(FileSystemUpdate& passwords, FileSystemUpdate& shadows) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    const unsigned int base = definition.getBaseUid();
    const unsigned int end = base + definition.getMaxUser();
    const std::string failure = "updateEntryInPasswordFile error in writing to " + passwords.m_tmpFilePath;
    std::map<std::string, unsigned int> userGids;

    // The system accounts are the new version's: those of the reference copy, with its shadow
    // entries.  Managed accounts a reference copy might hold are not the device's.
    {
        EntryReader<PasswdFile> reference(passwords.m_origFile, passwords.m_origFilePath, "updatePasswordFile");
        while (struct passwd* entry = reference.next()) {
            if (entry->pw_uid >= base && entry->pw_uid != kNobodyUid) continue;
            writeEntry<PasswdFile>(passwords.m_tmpFile, *entry, failure);
            updateShadowFile(shadows, entry->pw_name, true);
        }
    }
    endpwent();

    // The managed accounts are the device's, with the shell their profile has now.
    {
        EntryReader<PasswdFile> live(passwords.m_file, passwords.m_filePath, "updatePasswordFile");
        while (struct passwd* entry = live.next()) {
            if (entry->pw_uid >= base && entry->pw_uid < end) {
                entry->pw_shell = const_cast<char*>(definition.getUserShell(entry->pw_gid));
                writeEntry<PasswdFile>(passwords.m_tmpFile, *entry, failure);
            }
            if (entry->pw_uid >= base && entry->pw_uid != kNobodyUid) {
                updateShadowFile(shadows, entry->pw_name, false);
                userGids.emplace(entry->pw_name, entry->pw_gid);
            }
        }
    }
    endpwent();
    return userGids;
}

void updateProfiles(std::map<std::string, unsigned int> userGids) {
    ProfileDefinition& catalogue = ProfileDefinition::GetProfileDefinition();
    // The catalogue is built from the group database, which the migration has just replaced.
    (void)catalogue.getProfiles(true);
    const int viewers = Rbac::RetrieveProfileId("viewers");
    const bool falseFlag = false;
    for (const auto& [name, oldGid] : userGids) {
        const int id = catalogue.getProfile(oldGid).getId();
        User user(name);
        if (id >= 0)
            user.updateUser(nullptr, &id, nullptr, nullptr, false, nullptr, nullptr);
        else
            // The account's profile is gone: it keeps the least rights until a manager decides.
            user.updateUser(nullptr, &viewers, &falseFlag, nullptr, false, nullptr, nullptr);
    }
}

void filesSystemMigration() {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    // The profile step updates every carried-over account under the caller's rights.  A caller
    // without them would get the files rewritten as root and then fail half way: refused here,
    // before any file is touched.
    definition.checkRight(UserDefinition::ManageUsers, nullptr);
    // The reference copies rebuild root and the service accounts too (a device-specific root
    // password goes back to the shipped one): like any change to an account outside the managed
    // range, only the process's own root may run it, never a thread acting as a user manager.
    detail::requireReachable(0, "root");
    std::puts("Updating System files...");
    std::map<std::string, unsigned int> userGids;
    {
        // Declared first, destroyed last: root until the transactions have gone.
        SystemPermission permission;
        permission.setRealPermissions();
        {
            FileSystemUpdate group(definition.getGroupFilePath(), definition.getGroupTmpFilePath(), kGroupReference,
                                   false);
            group.prepareSystemFiles();
            updateGroupFile(group);
            group.finalyzeSystemFiles();
        }
        FileSystemUpdate passwords(definition.getPasswordFilePath(), definition.getPasswordTmpFilePath(),
                                   kPasswordReference, true);
        FileSystemUpdate shadows(definition.getShadowFilePath(), definition.getShadowTmpFilePath(), kShadowReference,
                                 false);
        passwords.prepareSystemFiles();
        shadows.prepareSystemFiles();
        userGids = updatePasswordFile(passwords, shadows);
        // A new passwd with the old shadow would leave the new system accounts without a shadow
        // entry and could pair a name with another account's password: both files or neither.
        finalyzeSystemFilesTogether(passwords, shadows);
    }
    std::puts("Updating Profiles...");
    updateProfiles(userGids);
}

}  // namespace usermanagement
