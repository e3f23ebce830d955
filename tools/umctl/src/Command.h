// The command table of umctl.  Each command group lives in a file of its own and hands its
// entries to main through one function declared here; adding a group is one new file and
// one line in allCommands().
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <usermanagement/ErrorCodes.h>

namespace umctl {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // not found, or the library refused
constexpr int kUsage = 2;


using Args = std::vector<std::string>;

struct Command {
    const char* name;
    const char* arguments;  // for the usage line, e.g. "NAME|UID"
    std::size_t minArgs;
    std::size_t maxArgs;
    // Prints the answer on stdout and returns the exit status; failures throw.
    int (*run)(const Args& args);
};

// Bad command line; main prints "umctl: <what>" and exits kUsage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A decimal id, or false when `text` is not one (then it is a name).  Throws UsageError for
// a number beyond the id range.
bool parseId(const std::string& text, unsigned int& id);

// Throws the library's "not found" exception (UMException code `code`).
[[noreturn]] void notFound(int code, const std::string& message);

// An account named on the command line by NAME or UID, with its profile gid.
struct Account {
    unsigned int uid = 0;
    std::string name;
    unsigned int profileGid = 0;
};
// Looks the account up through the library; "no such user" (code 5) when it has none.
Account resolveUser(const std::string& nameOrUid);

std::vector<Command> lookupCommands();
std::vector<Command> settingsCommands();
std::vector<Command> accessCommands();
std::vector<Command> identityCommands();
std::vector<Command> hashCommands();

// Installs the device's profile catalogue; called once at start-up.
void installCatalogue();

}  // namespace umctl
