// What the entry functions refuse to write, because the account files cannot hold it
// faithfully.  Each check of an argument runs before the function reads or writes anything;
// the one that depends on an entry's current field (no enabled account with an empty password)
// runs when that entry is reached.  Either way the live file stays untouched.
//
// User names (every function that writes a name: add and rename, in passwd and shadow): see
// files/UserName.h, the one name check of the library.
// Passwords:
//   - a plaintext password holding a NUL byte: crypt would hash only the part before it, and
//     "\0secret" would store the hash of the empty password;
//   - a ready-made hash holding ':', a newline or a NUL byte: it would break the entry or be
//     cut short;
//   - a ready-made hash longer than kMaxStoredHash bytes: no crypt method makes more than about
//     130, and a huge field would make the account files unreadable to the library's own reader
//     (kMaxEntryLine), so that every later create and remove would fail.
#pragma once

#include <cstring>
#include <string>

#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>

#include "files/UserName.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

// The longest ready-made hash the library stores.
constexpr std::size_t kMaxStoredHash = 512;

// UMException 1: a plaintext password must reach crypt whole.
inline void checkPlainPassword(const std::string& password, const char* function) {
    if (password.find('\0') != std::string::npos)
        raise<UMException>(UMError::PasswordError, function, " error, the password holds a NUL byte");
}

// UMException 1: a ready-made hash must fit into one field of one line of sane length.
inline void checkStoredHash(const std::string& hash, const char* function) {
    if (hash.find_first_of(std::string(":\n\0", 3)) != std::string::npos)
        raise<UMException>(UMError::PasswordError, function,
                           " error, the stored password holds ':', a newline or a NUL byte");
    if (hash.size() > kMaxStoredHash)
        raise<UMException>(UMError::PasswordError, function, " error, the stored password is longer than ",
                           kMaxStoredHash, " bytes");
}

// What cryptPwd refuses before hashing: longer than getDBPasswordMaxLen() bytes
// (UpdatePasswordException 19), a NUL byte (UMException 1).
void checkPlainForCrypt(const std::string& password);

// Every refusal the shadow entry functions make from a password argument alone, with their
// errors: a plaintext password cryptPwd refuses, a ready-made hash the file cannot hold, an
// empty hash for an account being enabled (`enabling`).  For operations that check a request
// before they open any file; `name` and `function` word the error as the entry function would.
void checkPasswordToStore(const std::string& name, const std::string& password, const PasswordType& type, bool enabling,
                          const char* function);

}  // namespace usermanagement::detail
