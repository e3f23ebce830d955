// The shadow-file entry functions and password hashing.
//
// The entry functions run inside a prepared FileSystemUpdate over the shadow file, one call
// per transaction, and copy every entry of the live file to the temporary file, changing,
// adding or leaving out the entry concerned.  Entries are matched by name byte for byte.
// Numeric fields holding -1 are written empty.  Dates are day numbers (seconds since
// 1970-01-01 divided by 86400).
//
// Password field: an optional prefix "!!" (the account is disabled) followed by the hash.  A
// single "!" is no disabled mark; it stays part of the hash.
//
// Failures: UMException 1 (a plaintext password holding a NUL byte; a ready-made hash holding
// ':', a newline or a NUL byte; an enabled account that would be left with an empty hash
// field, which PAM accepts with any password), UMException 7 (a new name the file cannot hold,
// as for the password file), UMSystemErrorException 10 (the temporary file cannot be written,
// the live file cannot be read or holds a line that is no valid entry, no random salt, or
// crypt made no hash), UpdatePasswordException 19 (password too long).  After a failure the
// temporary file is incomplete; destroying the transaction discards it and the live file
// stays as it was.
//
// The shadow file is installed after the password file: a process killed in between leaves a
// shadow entry without its passwd entry (after a removal or a rename) or a passwd entry
// without its shadow entry (after an addition, which cannot log in).  No function relies on
// the two files matching: an entry added or renamed to a name that has a shadow entry but no
// account in the password database replaces that stale entry; a name whose account exists is
// refused (UMException 0 "<name> :user already exists").
#pragma once

#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {

class FileSystemUpdate;

// The kind of password text handed to the entry functions.
struct TVC_UM_EXPORT PasswordType {
    // true: the text is already a crypt hash and is stored as given; false: it is plaintext
    // and is hashed with cryptPwd.
    bool encrypted = false;
};

// What updateEntryInShadowFile changed, for the audit events.  The caller creates it (with the
// initial values below) and the function only sets fields.  The field order is part of the
// binary interface.
struct TVC_UM_EXPORT LookUpdateShadow {
    // 0: the change enabled the account; 1: it disabled it; 2: the enabled state stayed.
    int activation = 2;
    // A new password hash was written.
    bool passwordUpdated = false;
    // The last-change day was written as 0: the password must be changed at the next login.
    bool passwordExpired = false;
    // Set by the caller: the account's holder changed their own password.
    bool selfUpdate = false;
};

// `thirdAge`, the name the interface gives the third value of the configuration's ageing policy
// (UserDefinition::getDBPasswordExpirationAge), means two things: for a new entry the day the
// account expires (a day number), for the all-accounts update the inactivity period (days
// after the password expired during which a login may still change it).

// Copies the file and appends `name`: hash field "" or "!!" (enabled false) followed by
// `password` (type.encrypted) or cryptPwd(password); last change 0 (mustChange) or today;
// minimum age `minAge`, maximum age `maxAge`, account expiration `thirdAge`; warning,
// inactivity and flag empty.  An entry already named `name` is stale (account creation
// refuses names the password file has) and is left out: the new account never inherits its
// password.
TVC_UM_EXPORT void addEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name,
                                        const std::string& password, const PasswordType& type, int maxAge,
                                        int minAge, int thirdAge, bool enabled, bool mustChange);

// Every entry named `name` takes `*newName`, the enabled state `*enabled` (keeping the old hash
// unless a new password is given), the new password `*newPassword` (hashed unless
// type.encrypted) and, for `*mustChange`, the last-change day 0 (true) or today (false).  A
// null pointer leaves its item unchanged.  An unknown name copies the file unchanged.  Another
// entry already named `*newName` is stale and is left out.  Enabling an account whose hash
// field is only "!!", or giving an enabled account an empty hash, is refused (UMException 1).
TVC_UM_EXPORT void updateEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name,
                                           const std::string* newName, const std::string* newPassword,
                                           const PasswordType& type, const bool* enabled, const bool* mustChange,
                                           LookUpdateShadow& record);

// Copies every entry not named `name`.  An unknown name is no error.
TVC_UM_EXPORT void removeEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name);

// Applies the ageing policy to every managed account (uid from getBaseUid() to getBaseUid() +
// getMaxUser() - 1 in the system database).  maxAge -1, or the base account when
// `exemptBaseUser`, empties the maximum, minimum and inactivity fields and keeps the last
// change day; otherwise last change becomes today, maximum `maxAge`, minimum `minAge` and
// inactivity `thirdAge`.  Other entries are copied unchanged; `record` is not touched.
TVC_UM_EXPORT void updateAllUserEntryInShadowFile(FileSystemUpdate& transaction, bool exemptBaseUser, int maxAge,
                                                  int minAge, int thirdAge, LookUpdateShadow& record);

// The complete operation: reads the ageing policy of the configuration
// (getDBPasswordExpirationAge, day values preset to -1), becomes root for its span and rewrites
// the shadow file with updateAllUserEntryInShadowFile under the password-file lock.
TVC_UM_EXPORT void updateExpirationDate();

// Appends to `out` the SHA-512 crypt hash ("$6$" + 16 salt characters + "$" + hash) of
// `password` with a fresh random salt.  UpdatePasswordException 19 "cryptPwd" when the
// password is longer than getDBPasswordMaxLen() bytes, UMException 1 when it holds a NUL byte,
// UMSystemErrorException 10 when the random source gives no salt or crypt makes no hash; `out`
// is unchanged then.  Callers put the "!!" prefix into `out` first.
TVC_UM_EXPORT void cryptPwd(const std::string& password, std::string& out);

}  // namespace usermanagement
