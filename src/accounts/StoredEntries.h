// How an account stands in the files themselves, not as the name service answers.  The name
// service answers with the first entry of a uid or name only, so an account that another tool
// stored twice (two lines with one uid, or one name twice) or in one file only (a creation
// killed between its two installs) looks whole to it.  A change made through such an account
// would go wrong: a rename makes two entries of the new name, a removal removes the twin too,
// a password reset of an account without a shadow entry writes nothing.  So before an existing
// account is changed, passwd and shadow are read through, with the password-file lock held.
#pragma once

#include <pwd.h>
#include <shadow.h>

#include <string>
#include <utility>

namespace usermanagement::detail {

// What the files hold of an account that requireWholeStoredAccount found whole: the primary
// group of the passwd entry that has both the uid and the name, if one has.
struct StoredAccount {
    bool stored = false;
    unsigned int primaryGid = 0;
};

// What the files hold of the account of `uid` and `name`, counted from their entries as a reader
// hands them over: requireWholeStoredAccount reads the files through for it, and a rewrite that
// reads every entry anyway counts on the way (removeUser), which saves a pass over each file.
class StoredAccountCount {
public:
    StoredAccountCount(unsigned int uid, std::string name) : m_uid(uid), m_name(std::move(name)) {}
    void passwdEntry(const struct passwd& entry);
    void shadowEntry(const struct spwd& entry);
    // The refusals and the outcome of requireWholeStoredAccount, for the entries counted.
    StoredAccount whole(const char* passwdPath, const char* shadowPath) const;

private:
    unsigned int m_uid;
    std::string m_name;
    unsigned int m_byUid = 0, m_byName = 0, m_inShadow = 0;
    StoredAccount m_account;
};

// UMException 43 (DuplicatedAccount) when `uid` or `name` occurs in more than one passwd entry,
// or `name` in more than one shadow entry; UMException 44 (HalfStoredAccount) when `name` is in
// passwd and not in shadow, or the reverse.  Nothing when the name is in neither file (a stale
// object, which the caller reports).  A line the entry reader refuses (EntryCopy.h) refuses the
// change the same way: UMSystemErrorException 10.  Otherwise what the files hold of the account.
StoredAccount requireWholeStoredAccount(unsigned int uid, const std::string& name);

}  // namespace usermanagement::detail
