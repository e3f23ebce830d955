// Checks that hold for every caller of an operation that changes a stored account, whatever
// the configured rights policy answers.  The web host that calls the library has bugs of its
// own and serves hostile users, so the library does not trust the object it is handed:
//
//   - requireReachable: an account outside the managed uid range (root, the web server's
//     account, daemons, service accounts) is changed only by the process's own root identity
//     (an operator at the console).  A thread acting as an account never reaches it, whatever
//     role that account holds: a user manager of the web interface must not be able to reset
//     root's password, disable it, or give a service account a password to log in with.
//   - confirmStoredAccount: under the password-file lock, the object's uid, name and primary
//     group must still be those of one stored account.  The passwd entry is found by uid and
//     the shadow entry by name, so an object whose name was changed with setUserName, or that a
//     session kept while a manager renamed accounts around it, would otherwise write one
//     account's passwd line and another account's password; and the passwd line is written
//     with the object's group, so a session's object kept across a demotion would give the
//     account its old profile back with a mere password change.
#pragma once

#include <string>

#include "accounts/StoredEntries.h"

namespace usermanagement::detail {

// Whether the operation's caller (access/Caller.h) is the process's own root (effective uid 0),
// not a thread acting as an account.
bool callerIsProcessRoot();

// authnz::AuthorizationException 305 (SystemAccount) when `uid` lies outside
// [getBaseUid(), getBaseUid() + getMaxUser()) and the caller is not the process's own root.
void requireReachable(unsigned int uid, const std::string& name);

// UMException 43 or 44 when the files hold the account twice or in one file only
// (requireWholeStoredAccount, StoredEntries.h); then UMException 41 (StaleAccount) unless the
// password file's entry of `uid` is named `name` with profile group `gid` (as an object looks
// it up), which makes the shadow file's entry of `name` the account's too.  The files are read
// through themselves, once, not asked of the name service.  Called with the password-file lock
// held, so nothing can change between this check and the rewrite.
void confirmStoredAccount(unsigned int uid, const std::string& name, unsigned int gid);

// The same check on entries a rewrite has counted while it read both files through, under the
// same lock and before anything is installed (StoredAccountCount).
void confirmStoredAccount(const StoredAccountCount& count, unsigned int uid, const std::string& name,
                          unsigned int gid);

}  // namespace usermanagement::detail
