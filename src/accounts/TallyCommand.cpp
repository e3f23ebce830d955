#include "accounts/TallyCommand.h"

#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

// `text` for the inside of a double-quoted word of a shell command line.  There the shell
// still gives '$', '`', '"' and '\' a meaning (expansions, the end of the word); each gets a
// backslash, so the command receives `text` as written, and an ordinary name stays as it is.
// Nothing else needs escaping inside double quotes: blanks, ';', '|', '\'' and newlines are
// literal there.  A NUL byte would cut the command line short: refused.
std::string insideDoubleQuotes(const std::string& text) {
    if (text.find('\0') != std::string::npos)
        raise<UMException>(UMError::BadUserName, "unLock error, bad user name: holds a NUL byte");
    std::string quoted;
    quoted.reserve(text.size());
    for (const char c : text) {
        if (c == '$' || c == '`' || c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted;
}

}  // namespace

std::string tallyResetCommand(const std::string& tallyFilePath, const std::string& name) {
    return "pam_tally2 -f \"" + insideDoubleQuotes(tallyFilePath) + "\" -r -u \"" + insideDoubleQuotes(name) + "\"";
}

}  // namespace usermanagement::detail
