// The migration of the account files after a software update (Migration.h).
//
// The new files are built from the reference copies of the new version and the managed
// accounts of the live files only: nothing of a previous, possibly interrupted run is read
// back as such, so running the migration again gives the same files.  The profile step reads
// each account's group id back from the live passwd file, so its updates are ordered such that
// a run stopped between any two installs leaves a group id from which the next run reaches the
// same account state (updateProfiles).
#include <usermanagement/Migration.h>

#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/Rbac.h>
#include <usermanagement/UMException.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>

#include "access/Caller.h"
#include "accounts/AccountGuards.h"
#include "accounts/AuditEvent.h"
#include "accounts/MigrationFiles.h"
#include "files/EntryChecks.h"
#include "files/EntryCopy.h"
#include "files/GroupMembers.h"
#include "files/ManagedRange.h"
#include "files/UserName.h"
#include "foundation/Raise.h"
#include "system/AsRoot.h"

namespace usermanagement {

namespace {

using detail::EntryReader;
using detail::EntryWriter;
using detail::GroupFile;
using detail::GshadowFile;
using detail::PasswdFile;
using detail::ShadowFile;

const char* const kGroupReference = "/etc/group.orig";
const char* const kPasswordReference = "/etc/passwd.orig";
const char* const kShadowReference = "/etc/shadow.orig";

// nobody keeps its high id on every version: it is a system account, never a managed one.
constexpr unsigned int kNobodyUid = 65534;

// Whether the account of `uid` is the device's own and is carried over from the live files;
// every other account is the new version's and comes from the reference copies.  The one
// predicate for the passwd line, the shadow line and the profile step: with two ranges, an
// account above the managed range lost its passwd line but kept an orphan shadow line, and the
// profile step then failed on it after the files were installed.
bool carriedOver(unsigned int uid, UserDefinition& definition) {
    return uid != kNobodyUid && detail::isManagedUid(uid, definition);
}

// The carried-over names go into files that every reader of the system parses: a name the
// library would refuse to write (a NIS reference, a comment, a control character) is refused
// here too, while the file step has written nothing yet.  The message names the account by its
// uid, since its name may hold anything.
// A name already written, by a system account of the new version or by another managed
// account, is refused the same way: two accounts of one name would share a login (the first
// entry wins every lookup), and pwck rejects the files.
void checkCarriedName(const struct passwd& entry, const std::set<std::string>& written) {
    const std::string function =
        "filesSystemMigration (rename the managed account of uid " + std::to_string(entry.pw_uid) + " first)";
    detail::checkUserName(entry.pw_name, function.c_str());
    if (written.count(entry.pw_name) != 0)
        throw UMException(UMError::BadUserName, (function + " error, bad user name").c_str(),
                          "the name of another account", umlog::Ctx::getCtx().getUsername(), true);
}

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

// The names of the reference copy go into the device's files as they are: one the library
// would refuse to write (an empty name, one that the shadow tools reject, a NIS reference...)
// makes the reference copy unfit, refused before anything is installed.  The message names no
// name, since it may hold anything.
void checkReferenceName(const char* name, const std::string& path, const char* function) {
    if (const char* reason = detail::userNameRefusal(name))
        detail::raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, ", path,
                                              " holds a name the account files cannot hold (", reason,
                                              "); the files are not rewritten");
}

// The C library reads the last field of a passwd line, the shell, up to the end of the line,
// separators included: "svc:x:9:9::/:/bin/sh:x" gives svc the shell "/bin/sh:x".  Such a line of
// the reference copy would go into the device's file with more fields than an entry has, which
// the shadow tools reject: refused like a line that is no entry at all.
void checkLastField(const char* field, const std::string& path, const char* function) {
    if (field != nullptr && std::strchr(field, ':') != nullptr)
        detail::raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, ", path,
                                              " holds a line of more fields than an entry has; the files are "
                                              "not rewritten");
}

}  // namespace

// Every step reads its files on the transactions' own streams (EntryReader): the process's
// getpwent, getgrent and getspent streams belong to the host, which may be enumerating on another
// thread, and are never set, read or ended here.
void updateGroupFile(FileSystemUpdate& groupTransaction) {
    constexpr const char* function = "updateGroupFile";
    const std::string& path = groupTransaction.m_origFilePath;
    // Each line goes to the device as it was read, so it must be a whole group entry as every
    // reader takes it: the C library also accepts lines with fields missing or with blanks
    // before the name, which other readers (grpck, the shadow tools) refuse.  A group name
    // twice would give the device two groups of one name (the group shadow file too, built
    // from the same lines).  Such a reference copy is refused before anything is installed.
    std::set<std::string> names;
    EntryReader<GroupFile> reference(groupTransaction.m_origFile, path, function);
    EntryWriter<GroupFile> writer(groupTransaction.m_tmpFile,
                                  std::string(function) + " error in writing to " + groupTransaction.m_tmpFilePath);
    while (struct group* entry = reference.next()) {
        checkReferenceName(entry->gr_name, path, function);
        std::size_t size = 0;
        const char* line = reference.intactLine(size);
        const std::string_view text = line != nullptr ? std::string_view(line, size) : std::string_view();
        const std::string_view name(entry->gr_name);
        if (line == nullptr || text.substr(0, name.size()) != name || text.substr(name.size(), 1) != ":" ||
            std::count(text.begin(), text.end(), ':') != 3)
            detail::raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, ", path,
                                                  " holds a line that is no whole group entry; the files are not "
                                                  "rewritten");
        if (!names.insert(entry->gr_name).second)
            detail::raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, ", path,
                                                  " names a group twice; the files are not rewritten");
        writer.writeLine(line, size);
    }
    writer.flush();
}

namespace {

// The group shadow file of the new version: one line per group of the group reference copy
// (the transaction's reference copy), in its order, with that group's members.  A group the
// device had keeps its password and administrators; a new one gets "!" (no password) and none;
// the lines of groups the new version dropped go.  Where a device has this file, newgrp and sg
// read the member lists from it: left as it was, it would go on giving groups that the group
// file no longer gives, and a dropped group's line would come back to life with a later
// version that brings a group of that name again.
void updateGshadowFile(FileSystemUpdate& gshadow) {
    constexpr const char* function = "updateGshadowFile";
    struct Kept {
        std::string password;
        std::vector<std::string> administrators;
    };
    std::map<std::string, Kept> kept;
    {
        EntryReader<GshadowFile> live(gshadow.m_file, gshadow.m_filePath, function);
        while (struct sgrp* entry = live.next()) {
            Kept line{entry->sg_passwd != nullptr ? entry->sg_passwd : "", {}};
            for (char** admin = entry->sg_adm; admin != nullptr && *admin != nullptr; ++admin)
                line.administrators.emplace_back(*admin);
            kept.emplace(entry->sg_namp, std::move(line));
        }
    }
    const std::string failure = std::string(function) + " error in writing to " + gshadow.m_tmpFilePath;
    EntryReader<GroupFile> reference(gshadow.m_origFile, gshadow.m_origFilePath, function);
    EntryWriter<GshadowFile> writer(gshadow.m_tmpFile, failure);
    std::string noPassword = "!";
    std::vector<char*> administrators;
    while (struct group* group = reference.next()) {
        // With a group shadow file the group file's password field holds "x" and the password
        // is here: a reference group with a password field of its own would be written beside
        // a line here that hides it, a pair that grpck rejects.  Such a reference copy does not
        // fit a device with this file and is refused before anything is installed.
        if (group->gr_passwd == nullptr || std::strcmp(group->gr_passwd, "x") != 0)
            detail::raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, a group of ",
                                                  gshadow.m_origFilePath,
                                                  " has a password field other than \"x\", which ",
                                                  gshadow.m_filePath, " would hide; the files are not rewritten");
        const auto found = kept.find(group->gr_name);
        administrators.clear();
        if (found != kept.end())
            for (std::string& admin : found->second.administrators) administrators.push_back(admin.data());
        administrators.push_back(nullptr);
        struct sgrp entry {};
        entry.sg_namp = group->gr_name;
        entry.sg_passwd = found != kept.end() ? found->second.password.data() : noPassword.data();
        entry.sg_adm = administrators.data();
        entry.sg_mem = group->gr_mem;
        writer.write(entry);
    }
    writer.flush();
}

}  // namespace

namespace {

// updateShadowFile, telling whether an entry was written.
// With `firstOfName`, the search starts at the top: the entry copied is the first of that
// name, the one every reader of the system finds.
bool copyShadowEntry(FileSystemUpdate& shadows, const char* name, bool fromReference, bool firstOfName) {
    FILE* source = fromReference ? shadows.m_origFile : shadows.m_file;
    const std::string& path = fromReference ? shadows.m_origFilePath : shadows.m_filePath;
    if (firstOfName && source != nullptr) rewind(source);
    // Without `firstOfName`, the search goes on where the previous one stopped: with the shadow
    // entries in the order of the passwd entries, each stream is read once over a whole
    // rewrite.  A file in another
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
            return true;
        }
    }
    return false;
}

// Every account written to the new passwd file has its shadow entry: without one the account
// can no longer log in, and the shadow tools (pwck) reject the pair of files.  A passwd entry
// whose shadow file has no entry of that name stops the file step before anything is installed.
// The account is named by its uid, since its name may hold anything.  The entry is the first of
// its name: a file that holds a second one (an old line left by a hand edit or another tool)
// must not give the account that one's password, which the system never used, when the order
// of the passwd entries has carried the search past the first.
void copyShadowEntryOf(FileSystemUpdate& shadows, const struct passwd& entry, bool fromReference,
                       const std::string& passwdPath) {
    if (copyShadowEntry(shadows, entry.pw_name, fromReference, true)) return;
    detail::raise<UMSystemErrorException>(UMSystemError::FileContents, "updatePasswordFile error, the account of uid ",
                                          entry.pw_uid, " in ", passwdPath, " has no entry in ",
                                          fromReference ? shadows.m_origFilePath : shadows.m_filePath,
                                          "; the files are not rewritten");
}

}  // namespace

void updateShadowFile(FileSystemUpdate& shadows, const char* name, bool fromReference) {
    (void)copyShadowEntry(shadows, name, fromReference, false);
}

std::map<std::string, unsigned int> updatePasswordFile(FileSystemUpdate& passwords, FileSystemUpdate& shadows) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    const std::string failure = "updateEntryInPasswordFile error in writing to " + passwords.m_tmpFilePath;
    std::map<std::string, unsigned int> userGids;
    // The names of the accounts written so far: each is written once.
    std::set<std::string> written;

    // The system accounts are the new version's: those of the reference copy, with its shadow
    // entries.  Managed accounts a reference copy might hold are not the device's.
    {
        EntryReader<PasswdFile> reference(passwords.m_origFile, passwords.m_origFilePath, "updatePasswordFile");
        while (struct passwd* entry = reference.next()) {
            if (carriedOver(entry->pw_uid, definition)) continue;
            checkReferenceName(entry->pw_name, passwords.m_origFilePath, "updatePasswordFile");
            checkLastField(entry->pw_shell, passwords.m_origFilePath, "updatePasswordFile");
            if (!written.insert(entry->pw_name).second)
                detail::raise<UMSystemErrorException>(UMSystemError::FileContents, "updatePasswordFile error, ",
                                                      passwords.m_origFilePath,
                                                      " names an account twice; the files are not rewritten");
            writeEntry<PasswdFile>(passwords.m_tmpFile, *entry, failure);
            copyShadowEntryOf(shadows, *entry, true, passwords.m_origFilePath);
        }
    }

    // The managed accounts are the device's, with the shell their profile has now.
    {
        EntryReader<PasswdFile> live(passwords.m_file, passwords.m_filePath, "updatePasswordFile");
        while (struct passwd* entry = live.next()) {
            if (!carriedOver(entry->pw_uid, definition)) continue;
            checkCarriedName(*entry, written);
            written.insert(entry->pw_name);
            entry->pw_shell = const_cast<char*>(definition.getUserShell(entry->pw_gid));
            writeEntry<PasswdFile>(passwords.m_tmpFile, *entry, failure);
            copyShadowEntryOf(shadows, *entry, false, passwords.m_filePath);
            userGids.emplace(entry->pw_name, entry->pw_gid);
        }
    }
    return userGids;
}

void updateProfiles(std::map<std::string, unsigned int> userGids) {
    // One operation: every account is looked up and updated for the same caller.
    const detail::CallerScope operation;
    ProfileDefinition& catalogue = ProfileDefinition::GetProfileDefinition();
    // The catalogue is built from the group database, which the migration has just replaced.
    (void)catalogue.getProfiles(true);
    const int viewers = Rbac::RetrieveProfileId("viewers");
    const bool falseFlag = false;
    for (const auto& [name, oldGid] : userGids) {
        // Another operation may have removed or renamed the account since the files were
        // rebuilt: there is nothing left to migrate, and failing here, with the files already
        // installed, would leave the accounts after it without their profile step.
        if (!systemutilities::LinuxUserSystem::getUserIds(name.c_str(), nullptr, nullptr)) {
            detail::logAccountEvent(detail::AccountNotMigrated,
                                    "User account - <" + name + "> no longer exists, its profile is not migrated");
            continue;
        }
        const int id = catalogue.getProfile(oldGid).getId();
        User user(name);
        if (id >= 0) {
            user.updateUser(nullptr, &id, nullptr, nullptr, false, nullptr, nullptr);
            continue;
        }
        // The account's profile is gone: it keeps the least rights until a manager decides.
        // Disabled first, then moved, in two updates.  The decision is read from the group id
        // in the live passwd file, and an update installs passwd before shadow: done in one
        // update, a kill between the two installs left the account in viewers but enabled,
        // and the next run, seeing viewers, kept it so.  In this order a run stopped anywhere
        // leaves either the old group id (the next run disables and moves again) or viewers
        // on an account that is disabled already.
        user.updateUser(nullptr, nullptr, &falseFlag, nullptr, false, nullptr, nullptr);
        user.updateUser(nullptr, &viewers, nullptr, nullptr, false, nullptr, nullptr);
    }
}

namespace detail {

std::map<std::string, unsigned int> migrateAccountFiles() {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    std::map<std::string, unsigned int> userGids;
    {
        // Declared first, destroyed last: root until the transactions have gone.
        const detail::AsRoot root;
        // The group transaction, built first and destroyed last, takes the password-file lock
        // for the whole file step: the group file is an account file like the others, and
        // rewritten without the lock it would race an account operation of another thread or
        // process, one of the two rewrites being lost.
        FileSystemUpdate group(definition.getGroupFilePath(), definition.getGroupTmpFilePath(), kGroupReference,
                               true);
        FileSystemUpdate passwords(definition.getPasswordFilePath(), definition.getPasswordTmpFilePath(),
                                   kPasswordReference, false);
        FileSystemUpdate shadows(definition.getShadowFilePath(), definition.getShadowTmpFilePath(), kShadowReference,
                                 false);
        const detail::GshadowPaths gshadowPaths = detail::gshadowPathsOf(group.m_filePath, group.m_tmpFilePath);
        std::optional<FileSystemUpdate> gshadow;
        if (gshadowPaths.present) gshadow.emplace(gshadowPaths.live, gshadowPaths.temporary, kGroupReference, false);
        group.prepareSystemFiles();
        if (gshadow) gshadow->prepareSystemFiles();
        passwords.prepareSystemFiles();
        shadows.prepareSystemFiles();
        // All new files are complete, and every carried-over name checked, before any is
        // installed: a refused name or a read failure leaves the device as it was.
        updateGroupFile(group);
        if (gshadow) updateGshadowFile(*gshadow);
        userGids = updatePasswordFile(passwords, shadows);
        // The group files are installed first, together.  They come from the reference copy
        // alone, so the next run writes them again byte for byte; should the passwd and shadow
        // pair fail after them, the device has the new version's groups with its old accounts,
        // which still log in, and a migration run again ends as a whole run.
        if (gshadow)
            finalyzeSystemFilesTogether(group, *gshadow);
        else
            group.finalyzeSystemFiles();
        // A new passwd with the old shadow would leave the new system accounts without a shadow
        // entry and could pair a name with another account's password: both files or neither.
        finalyzeSystemFilesTogether(passwords, shadows);
    }
    return userGids;
}

}  // namespace detail

void filesSystemMigration() {
    const detail::CallerScope operation;
    // The profile step updates every carried-over account under the caller's rights.  A caller
    // without them would get the files rewritten as root and then fail half way: refused here,
    // before any file is touched.
    UserDefinition::GetUserDefinition().checkRight(UserDefinition::ManageUsers, nullptr);
    // The reference copies rebuild root and the service accounts too (a device-specific root
    // password goes back to the shipped one): like any change to an account outside the managed
    // range, only the process's own root may run it, never a thread acting as a user manager.
    detail::requireReachable(0, "root");
    std::puts("Updating System files...");
    const std::map<std::string, unsigned int> userGids = detail::migrateAccountFiles();
    std::puts("Updating Profiles...");
    updateProfiles(userGids);
}

}  // namespace usermanagement
