// The command line that resets an account's failed-login count with the tally tool:
//     pam_tally2 -f "<tally file>" -r -u "<name>"
// run through "/bin/sh -c".  The shell must hand the tool the file and the name as one
// argument each, byte for byte, whatever they hold.
#pragma once

#include <string>

namespace usermanagement::detail {

// The command for `tallyFilePath` and `name`.  UMException 7 (BadUserName) when either holds a
// NUL byte, which would cut the command line short.  The caller checks the name itself first
// (checkUserName): this only makes the text safe for the shell.
std::string tallyResetCommand(const std::string& tallyFilePath, const std::string& name);

}  // namespace usermanagement::detail
