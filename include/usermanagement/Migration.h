// The account files after a software update.
//
// A new software version brings its own system accounts and groups as reference copies
// ("/etc/group.orig", "/etc/passwd.orig", "/etc/shadow.orig"), which hold no managed accounts.
// The migration builds the device's files from them and carries the managed accounts over:
//
//   - group: the reference copy as it is (profile groups the new version dropped are gone);
//   - passwd, shadow: the system accounts of the reference copy (every uid outside the managed
//     range [getBaseUid(), getBaseUid() + getMaxUser()), and 65534), then the device's managed
//     accounts (the same range, one rule for both files) with the shell of their profile and
//     their shadow entries unchanged (passwords, ageing, disabled mark); an account of the
//     live files outside that range goes with the old version, from both files;
//   - each carried-over account keeps its profile when the new catalogue still has it, and
//     is otherwise moved to the profile "viewers" and disabled.
//
// Where the device has a group shadow file (beside the group file), it is rebuilt for the
// groups of the reference copy, whose password fields must then all be "x": otherwise
// UMSystemErrorException 10 "updateGshadowFile error, a group of <reference copy> has a password
// field other than "x", which <group shadow file> would hide; the files are not rewritten".
//
// Every step rebuilds its file from the reference copy and the accounts found, so a migration
// that was interrupted is simply run again.
//
// The step functions take prepared transactions that have a reference copy (the four-argument
// FileSystemUpdate constructor) and are not finalised yet.  Write failures throw
// UMSystemErrorException 10 whose user carries "updateEntryInPasswordFile error in writing to
// <temporary passwd>" or "updateEntryInShadowFile error in writing to <temporary shadow>"; read
// failures and lines that are no valid entry as the entry functions report them.
#pragma once

#include <map>
#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {

class FileSystemUpdate;

// The whole migration: the ManageUsers rights check first (authnz::AuthorizationException 302
// before any file is touched), then as root and under the password-file lock (held once for
// the whole file step) the three new files are built, then the group file is installed, then
// the password and shadow files together (both installed or neither), then the profiles of the
// carried-over accounts under the caller's own identity.  A carried-over name the library
// would refuse to write, or one that an account written before it has (a system account of the
// new version, another managed account), stops it before anything is installed: UMException 7
// "filesSystemMigration (rename the managed account of uid <uid> first) error, bad user name:
// <reason>".  Prints "Updating System files..." and "Updating Profiles..." on standard output.
// Killed at any point and run again, it ends with the files and account states of a whole run.
TVC_UM_EXPORT void filesSystemMigration();

// Writes every entry of the group reference copy, in order, to the temporary file.  The live
// group file is not read.  A reference copy that names a group twice throws
// UMSystemErrorException 10 "updateGroupFile error, <reference copy> names a group twice; the
// files are not rewritten"; one holding a group name that the user name rules of the library
// refuse, UMSystemErrorException 10 "updateGroupFile error, <reference copy> holds a name the
// account files cannot hold (<reason>); the files are not rewritten"; one with a line that is no
// whole group entry as every reader takes it (fields missing or too many, blanks before the
// name), UMSystemErrorException 10 "updateGroupFile error, <reference copy> holds a line that is
// no whole group entry; the files are not rewritten".
TVC_UM_EXPORT void updateGroupFile(FileSystemUpdate& groupTransaction);

// Copies to the temporary shadow file the next entry named `name`, read from the reference copy
// (`fromReference`) or the live file, from where the previous read of that stream stopped; when
// the rest of the stream has none, the search starts over once from the top, so a file whose
// entries are not in the order of the passwd entries loses none.  Nothing is written when the
// stream has no such entry.
TVC_UM_EXPORT void updateShadowFile(FileSystemUpdate& shadows, const char* name, bool fromReference);

// Writes the system accounts of the passwd reference copy (uid outside getBaseUid() to
// getBaseUid() + getMaxUser() - 1, or 65534) with their reference shadow entries, then the
// managed accounts of the live file (uid in that range, but 65534) with the shell
// getUserShell(gid), each followed by its live shadow entry; the shadow entry of an account is
// the first of its name in its file (the one the system reads), wherever the file holds it.  A managed name that
// checkUserName refuses, or that an account written before it has, throws UMException 7 (see
// filesSystemMigration); a reference copy that names an account twice, holds a system account's
// name that those rules refuse, or a shell holding ':' (UMSystemErrorException 10
// "updatePasswordFile error, <reference copy> holds a line of more fields than an entry has;
// the files are not rewritten"), throws UMSystemErrorException 10 as updateGroupFile does (with
// "updatePasswordFile" and "an account").  An account written
// whose shadow stream has no entry of its name throws UMSystemErrorException 10
// "updatePasswordFile error, the account of uid <uid> in <passwd file> has no entry in <shadow
// file>; the files are not rewritten" (without it the account could not log in).  Returns the
// managed accounts' names with their group id.
TVC_UM_EXPORT std::map<std::string, unsigned int> updatePasswordFile(FileSystemUpdate& passwords,
                                                                     FileSystemUpdate& shadows);

// Rebuilds the profile catalogue from the new group database, then gives each account of
// `userGids` the profile of its old group id again, or, when the catalogue no longer has one,
// the profile "viewers" and disables it (disabled first, then moved, so that a run killed in
// between and run again ends the same).  An account that no longer exists is left out with
// the audit event 13 "User account - <NAME> no longer exists, its profile is not migrated".
// Failures of the account updates propagate.
TVC_UM_EXPORT void updateProfiles(std::map<std::string, unsigned int> userGids);

}  // namespace usermanagement
