// How an account stands in the files themselves, not as the name service answers.  The name
// service answers with the first entry of a uid or name only, so an account that another tool
// stored twice (two lines with one uid, or one name twice) or in one file only (a creation
// killed between its two installs) looks whole to it.  A change made through such an account
// would go wrong: a rename makes two entries of the new name, a removal removes the twin too,
// a password reset of an account without a shadow entry writes nothing.  So before an existing
// account is changed, passwd and shadow are read through, with the password-file lock held.
#pragma once

#include <string>

namespace usermanagement::detail {

// What the files hold of an account that requireWholeStoredAccount found whole: the primary
// group of the passwd entry that has both the uid and the name, if one has.
struct StoredAccount {
    bool stored = false;
    unsigned int primaryGid = 0;
};

// UMException 43 (DuplicatedAccount) when `uid` or `name` occurs in more than one passwd entry,
// or `name` in more than one shadow entry; UMException 44 (HalfStoredAccount) when `name` is in
// passwd and not in shadow, or the reverse.  Nothing when the name is in neither file (a stale
// object, which the caller reports).  A line the entry reader refuses (EntryCopy.h) refuses the
// change the same way: UMSystemErrorException 10.  Otherwise what the files hold of the account.
StoredAccount requireWholeStoredAccount(unsigned int uid, const std::string& name);

}  // namespace usermanagement::detail
