// The command table of umctl.  Each command group lives in a file of its own and hands its
// entries to main through one function declared here; adding a group is one new file and
// one line in allCommands().  Each entry declares its operands and options on its own CLI11
// subcommand, so that every command has its own --help.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <usermanagement/ErrorCodes.h>
#include <usermanagement/SystemPermission.h>

namespace umctl {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // not found, or the library refused
constexpr int kUsage = 2;   // bad command line, or a bad configuration file

using Json = nlohmann::ordered_json;  // keys in the order written

// What runs a command once its words are parsed; returns the exit status, failures throw.
using Run = std::function<int()>;

struct Command {
    const char* name;
    const char* description;  // one line, for the command list and the command's --help
    const char* example;      // the footer of the command's --help
    // Declares the command's operands and options on its subcommand `app`, bound to storage
    // the returned runner reads.
    Run (*define)(CLI::App& app);
    // False: main runs the command acting as the --as account.  True: the command switches
    // itself (it has work to do under umctl's own identity first).
    bool switchesItself = false;
};

// A required operand of `app` (e.g. "ACCOUNT"), and an optional one.
std::shared_ptr<std::string> operand(CLI::App& app, const char* name, const char* help);
std::shared_ptr<std::string> optionalOperand(CLI::App& app, const char* name, const char* help);
// A switch (e.g. "--disabled").
std::shared_ptr<bool> flag(CLI::App& app, const char* name, const char* help);
// --password-stdin, which every command that reads a password has.
std::shared_ptr<bool> passwordStdinFlag(CLI::App& app);

// The options before or after the command words.
struct Options {
    bool json = false;     // --json: every answer, and every failure, as one JSON object a line
    std::string actingAs;  // --as NAME: the account the command runs as ("" for none)
    std::string config;    // --config FILE: the device configuration
    bool configGiven = false;
};
const Options& options();

// True with --json: a command prints its answer through emit() instead of its text.
inline bool jsonOutput() { return options().json; }
// Prints `answer` as one line of JSON on stdout; bytes that are not UTF-8 become U+FFFD.
void emit(const Json& answer);
// A command's success: the confirmation line `text`, or with --json the object `answer`; kOk.
int confirm(const std::string& text, const Json& answer);

// For its lifetime the calling thread acts as the --as account through the library's switch
// (SystemPermission::setUserPermission), and the log context names that account.  Nothing
// happens without --as.  "no such account" at once for an account that does not exist.
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

// The situations umctl reports in its own words (Messages.cpp holds the words).  The library's
// exceptions map onto them by class and code; umctl raises some itself.
enum class Situation {
    NoSuchAccount,
    NoSuchGroup,
    AccountExists,
    NoSuchProfile,
    MainAccountUnremovable,
    MainAccountUndisable,
    AccountRangeFull,
    BadName,
    RemoveForbidden,
    MissingParameter,
    StaleAccount,
    DuplicatedAccount,
    HalfStoredAccount,
    NothingInstalled,
    AccountFiles,
    FilesLocked,
    DatabaseLookup,
    TallyReset,
    IdentitySwitch,
    PasswordNotStorable,
    WrongPassword,
    LoginRefused,
    PasswordTooLong,
    PasswordRules,
    RootLogin,
    LoginService,
    TokenRefused,
    PasswordExpired,
    NotAuthorized,
    ConcurrentSession,
    SystemAccount,
    PasswordsDiffer,
    LibraryFailure,
};

// A failure umctl finds itself, where the library has no exception of its own for it: exit
// status 1, the message of `situation` about `subject`.  (An unknown account is the library's
// "user not found", UMException 5, whoever finds it.)
struct Failure : std::runtime_error {
    Failure(Situation situation, const std::string& subject);
    Situation situation;
    std::string subject;
};

// The account (or group) the running command is about, named in its failure messages.
void setSubject(const std::string& name);
const std::string& subject();

// Reports the exception being handled (inside a catch block) on stderr as "umctl: <message>",
// and with --json as one error object on stdout; returns the exit status for it.
int reportFailure();
// The same for a bad command line (kUsage).
int reportUsage(const std::string& message);

// A decimal id, or false when `text` is not one (then it is a name).  Throws UsageError for
// a number beyond the id range.
bool parseId(const std::string& text, unsigned int& id);

// An account named on the command line by NAME or UID, with its profile gid.
struct Account {
    unsigned int uid = 0;
    std::string name;
    unsigned int profileGid = 0;
};
// Looks the account up in the system's account database, which answers at once; "no such
// account" when it has none.  The library's own lookups pause before they report an unknown
// account, so every command resolves its accounts here before it hands them to the library.
// Also makes the account the subject of the command's messages.
Account resolveUser(const std::string& nameOrUid);
// The same for an operand that is a name only (the library takes it as a name, digits or not).
Account resolveName(const std::string& name);

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

// Installs the device configuration file of --config (its catalogue and settings); called once
// at start-up.  Throws tvc::deviceconfig::ConfigError.
void installConfiguration();
// Installs umctl's log sink (stderr, and syslog where a log socket exists); called once.
void installAuditSink();

// `text` printable on one line, for every name and library text umctl prints for people:
// a backslash becomes \\, newline, tab and carriage return \n, \t and \r, the other control
// characters (0x00-0x1f, 0x7f) \xHH.  Other bytes are kept, so ordinary names print as they are.
std::string printable(const std::string& text);

// `text` printable as above, with `"` as \", between double quotes: a field of the log line
// that no blank, quote or "key=" inside it can split.
std::string quoted(const std::string& text);

}  // namespace umctl
