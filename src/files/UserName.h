// The one check of a user name the library writes: to passwd and shadow (create, rename) or to
// a command line (the failed-login reset of an unlock, a re-enable or a password reset).  It runs
// after the configured check (UserDefinition::isAValidUserName), which may accept anything.
// A name is refused when it is:
//   - empty, or longer than kMaxUserName bytes: the shadow tools and utmp hold no more;
//   - holding a NUL byte: the file would get only the part before it while every comparison
//     sees the whole string, so "admin\0" would become a second "admin";
//   - holding ':' (the field separator), a newline or another control character (C0, DEL, C1);
//   - starting with '+' or '-' (NIS references to the writer), '#' (a comment to every reader)
//     or '~' (a home directory to shells; the shadow tools refuse it);
//   - "." or "..": a name becomes a path (home, mail spool, tally), and these name directories;
//   - all digits: tools that take NAME|UID (the command-line host among them) would read it as
//     another account's uid;
//   - holding whitespace anywhere (ASCII or Unicode): command lines and logs split on it, and a
//     name that looks like another one is a trap for the operator;
//   - holding '/': the name would end up as a path of several parts;
//   - holding ',': the group file separates member names with it;
//   - not valid UTF-8 (a stray byte, an overlong form, a surrogate, beyond U+10FFFF): hosts put
//     the name into JSON and logs, which must stay valid text.
#pragma once

#include <cstddef>
#include <string>

namespace usermanagement::detail {

// The longest user name the library writes (the common limit of the shadow tools and of utmp).
constexpr std::size_t kMaxUserName = 32;

// Why `name` is refused (one of the lines above, in words), or null for a name the library writes.
const char* userNameRefusal(const std::string& name);

// UMException 7 (BadUserName): message "<function> error, bad user name", the reason as its
// description (getErrorDescription()).  The name itself is not quoted, since it may hold anything.
void checkUserName(const std::string& name, const char* function);

}  // namespace usermanagement::detail
