// The password-file entry functions: each runs inside a prepared FileSystemUpdate over the
// password file, reads every entry of the live file once and writes the new contents to the
// temporary file (one call per transaction, between prepareSystemFiles() and
// finalyzeSystemFiles()).  Entries are matched by name byte for byte or by uid.
//
// Failures: UMException 0 (name already used), UMException 6 (no free uid), UMException 7 (a
// name the file cannot hold faithfully: empty, longer than 32 bytes, holding a NUL byte, ':',
// a newline or another control character, or starting with '+', '-' or '#'; refused before
// anything is read), UMSystemErrorException 10 (the temporary file cannot be written, the live
// file cannot be read, or one of its lines is no valid entry: the rewrite would lose it, so
// the message names the file and the line).  After a failure the temporary file is
// incomplete; destroying the transaction discards it and the live file stays as it was.
#pragma once

#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {

class FileSystemUpdate;
class UmProfile;

// What updateEntryInPasswordFile changed, for the audit events.  The caller creates it
// (with the initial values below) and the function only sets fields.  The field order is
// part of the binary interface.
struct TVC_UM_EXPORT LookUpdatePasswd {
    // The entry was given a new name.
    bool nameUpdated = false;
    // The entry's group id (profile) changed.
    bool profileUpdated = false;
    // Name before the rename.
    std::string oldName;
    // Group id before the change.
    unsigned int oldGid = 0;
};

// Copies the file and appends `name` with password "x", a uid from generateUID(getBaseUid(),
// getMaxUser()), group `gid` and the configured GECOS, home and shell (getUserShell(gid)).
// Returns the new uid.  UMException 0 "<name> :user already exists" when the name is taken.
TVC_UM_EXPORT unsigned int addEntryInPasswordFile(FileSystemUpdate& transaction, const std::string& name,
                                                  unsigned int gid);

// Every entry with user id `uid` gets `*newName` (when given and different) and, when its
// group differs from `gid`, the group `gid` and the shell getUserShell(gid); `record` tells
// what changed.  A new name held by an entry of another uid fails with UMException 0, also
// when that entry comes after the account's own.  An unknown uid copies the file unchanged.
TVC_UM_EXPORT void updateEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid, unsigned int gid,
                                             const std::string* newName, LookUpdatePasswd& record);

// Copies every entry whose user id is not `uid`.  An unknown uid is no error.
TVC_UM_EXPORT void removeEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid);

// The first id from `base` to base + count - 1 that no account of the system database has.
// The database is the live password file, not a transaction's temporary file.
// UMException 6 "generateUID error, max uid reached" when the range is full (or empty);
// UMSystemErrorException 12 when the database cannot answer.
TVC_UM_EXPORT unsigned int generateUID(unsigned int base, unsigned int count);

// Whether `name` is in the null-terminated `list`; `count` receives the number of entries of
// the list (the walk does not stop at a match).
TVC_UM_EXPORT bool isPresentInListName(char** list, const std::string& name, int& count);

// Whether `profile` grants the group `groupName` through its roles.
TVC_UM_EXPORT bool isPresentInGroups(const char* groupName, UmProfile& profile);

}  // namespace usermanagement
