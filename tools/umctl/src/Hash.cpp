// umctl hash: the SHA-512 crypt hash the library would store for a password, with a fresh
// salt each run.  The password is read like every other one (PasswordInput): a password on the
// command line, where other processes of the machine can read it, is refused.
#include <iostream>
#include <string>

#include <usermanagement/ShadowEntries.h>

#include "Command.h"
#include "PasswordInput.h"

namespace umctl {

namespace {

int hash(bool fromStdin) {
    Secret password;
    PasswordInput(fromStdin).read("Password: ", password);
    std::string out;
    usermanagement::cryptPwd(password.text(), out);
    if (jsonOutput())
        emit({{"hash", out}});
    else
        std::cout << printable(out) << "\n";
    return kOk;
}

Run defineHash(CLI::App& app) {
    const auto fromStdin = passwordStdinFlag(app);
    // Taken only to be refused with a reason, rather than as an unexpected argument.
    const auto word = std::make_shared<std::string>();
    CLI::Option* onCommandLine = app.add_option("PASSWORD", *word)->group("");
    return [fromStdin, word, onCommandLine] {
        if (onCommandLine->count() != 0)
            throw UsageError("hash: a password is never taken from the command line; "
                             "type it at the prompt or give it on standard input");
        return hash(*fromStdin);
    };
}

}  // namespace

std::vector<Command> hashCommands() {
    return {{"hash", "the crypt hash the library would store for a password (read without echo or from stdin)",
             "printf '%s\\n' 'Demo#2026' | umctl hash", defineHash}};
}

}  // namespace umctl
