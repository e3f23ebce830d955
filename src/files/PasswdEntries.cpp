// Password-file entry functions over the shared copy loop of EntryCopy.h.
#include <usermanagement/PasswdEntries.h>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmProfile.h>
#include <usermanagement/UserDefinition.h>

#include "access/DatabaseLookup.h"
#include "access/NameServiceSources.h"
#include "files/EntryChecks.h"
#include "files/EntryCopy.h"
#include "files/ObservedRemoval.h"
#include "foundation/Raise.h"

namespace usermanagement {

namespace {

using detail::EntryAction;
using detail::PasswdFile;
using detail::raise;

// Whether the system database has an account with `uid`.  Only a definite "no such account"
// counts as free: a lookup that fails for another reason must not hand out an id that may be
// in use.
bool uidInUse(unsigned int uid) {
    const auto account = detail::userById(uid);
    if (account.status == detail::LookupStatus::Failed)
        raise<UMSystemErrorException>(UMSystemError::DatabaseLookup, "generateUID error, getpwuid_r ", uid, " ",
                                      std::strerror(account.error));
    return account.found();
}

// generateUID, where the ids `inFile` (sorted) are known to be taken: they are skipped without a
// lookup.  Each lookup reads the password file up to the account, and the managed accounts are
// usually the last entries; only an id the file does not hold is asked of the database, which
// may know accounts the file does not.  With `fileIsDatabase` (the name service answers from
// that very file alone, access/NameServiceSources.h) the file's ids are all it knows.
unsigned int firstFreeUid(unsigned int base, unsigned int count, const std::vector<unsigned int>& inFile,
                          bool fileIsDatabase) {
    if (count != 0) {
        // Unsigned arithmetic, as the configuration defines the range: a range that wraps past
        // the largest id ends below its base and offers nothing.  4294967295 (the "unknown"
        // id) is never handed out.
        const unsigned int limit = base + count - 1;
        for (unsigned int uid = base; uid <= limit && uid != UINT_MAX; ++uid)
            if (!std::binary_search(inFile.begin(), inFile.end(), uid) && (fileIsDatabase || !uidInUse(uid)))
                return uid;
    }
    raise<UMException>(UMError::MaxUsersReached, "generateUID error, max uid reached");
}

}  // namespace

unsigned int addEntryInPasswordFile(FileSystemUpdate& transaction, const std::string& name, unsigned int gid) {
    detail::checkUserName(name, "addEntryInPasswordFile");
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    const unsigned int base = definition.getBaseUid(), count = definition.getMaxUser();
    // The range's ids the file holds, noted on the way: no need to ask the database about them.
    std::vector<unsigned int> taken;
    detail::copyEntries<PasswdFile>(
        transaction,
        [&](struct passwd& entry) {
            if (name == entry.pw_name) raise<UMException>(UMError::UserAlreadyExists, name, " :user already exists");
            if (entry.pw_uid - base < count) taken.push_back(entry.pw_uid);
            return EntryAction::Write;
        },
        "addEntryInPasswordFile", "addEntryInPasswordFile error in writing to " + transaction.m_tmpFilePath);

    std::sort(taken.begin(), taken.end());
    // The file the C library's files backend reads is /etc/passwd.
    const bool fileIsDatabase = std::strcmp(definition.getPasswordFilePath(), "/etc/passwd") == 0 &&
                                detail::answeredByFilesAlone("passwd");
    const unsigned int uid = firstFreeUid(base, count, taken, fileIsDatabase);
    // The configuration's strings stay valid for the life of the provider; putpwent only reads them.
    struct passwd entry {};
    entry.pw_name = const_cast<char*>(name.c_str());
    entry.pw_passwd = const_cast<char*>("x");
    entry.pw_uid = uid;
    entry.pw_gid = gid;
    entry.pw_gecos = const_cast<char*>(definition.getUserGecos());
    entry.pw_dir = const_cast<char*>(definition.getUserHome());
    entry.pw_shell = const_cast<char*>(definition.getUserShell(gid));
    detail::appendEntry<PasswdFile>(
        transaction, entry, "addEntryInPasswordFile error (new entry) in writing to " + transaction.m_tmpFilePath);
    return uid;
}

void updateEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid, unsigned int gid,
                               const std::string* newName, LookUpdatePasswd& record) {
    if (newName != nullptr) detail::checkUserName(*newName, "updateEntryInPasswordFile");
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    detail::copyEntries<PasswdFile>(
        transaction,
        [&](struct passwd& entry) {
            if (entry.pw_uid != uid) {
                if (newName != nullptr && *newName == entry.pw_name)
                    raise<UMException>(
                        UMError::UserAlreadyExists,
                        "updateEntryInPasswordFile error, update username with a name already used:", *newName);
                return EntryAction::Write;
            }
            if (newName != nullptr && *newName != entry.pw_name) {
                record.nameUpdated = true;
                record.oldName = entry.pw_name;
                entry.pw_name = const_cast<char*>(newName->c_str());
            }
            if (entry.pw_gid != gid) {
                record.oldGid = entry.pw_gid;
                record.profileUpdated = true;
                entry.pw_gid = gid;
                entry.pw_shell = const_cast<char*>(definition.getUserShell(gid));
            }
            return EntryAction::Write;
        },
        "updateEntryInPasswordFile", "updateEntryInPasswordFile error in writing to " + transaction.m_tmpFilePath);
}

void removeEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid) {
    detail::removeEntryInPasswordFile(transaction, uid, {});
}

void detail::removeEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid,
                                       const std::function<void(const struct passwd&)>& seen) {
    detail::copyEntries<PasswdFile>(
        transaction,
        [&](const struct passwd& entry) {
            if (seen) seen(entry);
            return entry.pw_uid == uid ? EntryAction::Drop : EntryAction::Write;
        },
        "removeEntryInPasswordFile", "removeEntryInPasswordFile error in writing in " + transaction.m_tmpFilePath);
}

unsigned int generateUID(unsigned int base, unsigned int count) { return firstFreeUid(base, count, {}, false); }

bool isPresentInListName(char** list, const std::string& name, int& count) {
    count = 0;
    bool found = false;
    for (char** entry = list; entry != nullptr && *entry != nullptr; ++entry) {
        ++count;
        if (name == *entry) found = true;
    }
    return found;
}

bool isPresentInGroups(const char* groupName, UmProfile& profile) {
    return groupName != nullptr && profile.isBelongingToGroup(std::string(groupName));
}

}  // namespace usermanagement
