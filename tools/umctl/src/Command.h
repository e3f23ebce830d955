// The command table of umctl.  Each command group lives in a file of its own and hands its
// entries to main through one function declared here; adding a group is one new file and
// one line in allCommands().
#pragma once

#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <usermanagement/ErrorCodes.h>
#include <usermanagement/SystemPermission.h>

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
    // False: main runs the command acting as the --as account.  True: the command switches
    // itself (it has work to do under umctl's own identity first).
    bool switchesItself = false;
};

// The options before or after the command words.
struct Options {
    bool json = false;     // --json: answers and library failures as JSON
    std::string actingAs;  // --as NAME: the account the command runs as ("" for none)
};
const Options& options();

// For its lifetime the calling thread acts as the --as account through the library's switch
// (SystemPermission::setUserPermission), and the log context names that account.  Nothing
// happens without --as.  UMException 5 for an account that does not exist.
class ActingAs {
public:
    ActingAs();
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;

private:
    usermanagement::SystemPermission m_permission;
};

// Bad command line; main prints "umctl: <what>" and exits kUsage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws the UsageError that shows the usage line of `command`.
[[noreturn]] void badUsage(const std::string& command);

// A command's words split into its operands, in order, and the options it was given.
struct CommandLine {
    Args operands;
    std::map<std::string, std::string> options;  // "--name" to its value, "" for a switch
    bool has(const std::string& option) const { return options.count(option) != 0; }
};
// Splits the words of `command` by its options: `switches` stand alone, `valued` take the next
// word as their value.  UsageError for an unknown option, a missing value, or a number of
// operands other than `operands`.
CommandLine splitOptions(const std::string& command, const Args& args, std::size_t operands,
                         std::initializer_list<const char*> switches, std::initializer_list<const char*> valued = {});

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
std::vector<Command> accountCommands();
std::vector<Command> loginCommands();
std::vector<Command> lifeCycleCommands();
std::vector<Command> passwordCommands();
std::vector<Command> migrationCommands();

// Installs the sample device's profile catalogue and configuration; called once at start-up.
void installCatalogue();
// Installs umctl's log sink (stderr, and syslog where a log socket exists); called once.
void installAuditSink();

// `text` as a JSON string literal, in valid UTF-8 whatever bytes it holds: valid UTF-8
// sequences are kept, each byte that is not part of one becomes \ufffd, control characters
// become \u00XX.
std::string jsonString(const std::string& text);

// `text` printable on one line, for every name and library text umctl prints for people:
// a backslash becomes \\, newline, tab and carriage return \n, \t and \r, the other control
// characters (0x00-0x1f, 0x7f) \xHH.  Other bytes are kept, so ordinary names print as they are.
std::string printable(const std::string& text);

// `text` printable as above, with `"` as \", between double quotes: a field of the log line
// that no blank, quote or "key=" inside it can split.
std::string quoted(const std::string& text);

}  // namespace umctl
