// What the entry functions refuse to write, because the account files cannot hold it
// faithfully.  Each check of an argument runs before the function reads or writes anything;
// the one that depends on an entry's current field (no enabled account with an empty password)
// runs when that entry is reached.  Either way the live file stays untouched.
//
// User names (every function that writes a name: add and rename, in passwd and shadow):
//   - empty, or longer than kMaxUserName bytes;
//   - holding a NUL byte: the file would get only the part before it while every comparison
//     sees the whole string, so "admin\0" would pass the duplicate check and become a second
//     "admin" whose password wins the login;
//   - holding ':' (the field separator), a newline or any other control character;
//   - starting with '+' or '-' (the writer turns such names into NIS references) or '#' (a
//     comment to every reader of the file).
// Passwords:
//   - a plaintext password holding a NUL byte: crypt would hash only the part before it, and
//     "\0secret" would store the hash of the empty password;
//   - a ready-made hash holding ':', a newline or a NUL byte: it would break the entry or be
//     cut short.
#pragma once

#include <cstring>
#include <string>

#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

// The longest user name the library writes (the common limit of the shadow tools and of utmp).
constexpr std::size_t kMaxUserName = 32;

// UMException 7 "<function> error, bad user name: <reason>"; the name itself is not quoted,
// since it may hold anything.
inline void checkUserName(const std::string& name, const char* function) {
    const char* reason = nullptr;
    if (name.empty())
        reason = "empty";
    else if (name.size() > kMaxUserName)
        reason = "longer than 32 bytes";
    else if (name[0] == '+' || name[0] == '-' || name[0] == '#')
        reason = "starts with '+', '-' or '#'";
    else
        for (const char c : name) {
            const unsigned char byte = static_cast<unsigned char>(c);
            if (byte < 0x20 || byte == 0x7f || c == ':') {
                reason = "holds a NUL byte, ':', a newline or another control character";
                break;
            }
        }
    if (reason != nullptr) raise<UMException>(UMError::BadUserName, function, " error, bad user name: ", reason);
}

// UMException 1: a plaintext password must reach crypt whole.
inline void checkPlainPassword(const std::string& password, const char* function) {
    if (password.find('\0') != std::string::npos)
        raise<UMException>(UMError::PasswordError, function, " error, the password holds a NUL byte");
}

// UMException 1: a ready-made hash must fit into one field of one line.
inline void checkStoredHash(const std::string& hash, const char* function) {
    if (hash.find_first_of(std::string(":\n\0", 3)) != std::string::npos)
        raise<UMException>(UMError::PasswordError, function,
                           " error, the stored password holds ':', a newline or a NUL byte");
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
