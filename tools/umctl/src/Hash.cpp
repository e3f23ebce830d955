// umctl hash PASSWORD: the SHA-512 crypt hash the library would store for PASSWORD, with a
// fresh salt each run.  The password is on the command line, visible to other processes of
// the machine: for demonstrations and tests, not for real passwords.
#include <iostream>
#include <string>

#include <usermanagement/ShadowEntries.h>

#include "Command.h"

namespace umctl {

namespace {

int hash(const Args& args) {
    std::string out;
    usermanagement::cryptPwd(args[0], out);
    std::cout << printable(out) << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> hashCommands() { return {{"hash", "PASSWORD", 1, 1, hash}}; }

}  // namespace umctl
