// umctl: command-line host of libtvc_usermanagement.
//
//     umctl [--json] [--as NAME] [--config FILE] COMMAND [ARGS...]
//
// The global options go before or after the command.  Exit status 0 on success, 1 when
// something is not found or the library refuses, 2 on a bad command line or configuration.
// Every error is one line on stderr, "umctl: <message>", the names it echoes made printable
// (control characters escaped); with --json every answer, success or failure, is also one JSON
// object on one line of stdout.  With --as the command runs with the thread acting as account
// NAME, as a device's web server serves a logged-in operator: the library's rights checks
// judge that account.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <systemutilities/LinuxUserSystem.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>

#include "Command.h"
#include "deviceconfig/DeviceConfig.h"

namespace umctl {

std::vector<Command> allCommands() {
    std::vector<Command> all;
    for (auto group : {lookupCommands, accountCommands, lifeCycleCommands, passwordCommands, loginCommands,
                       settingsCommands, accessCommands, identityCommands, hashCommands, migrationCommands}) {
        std::vector<Command> commands = group();
        all.insert(all.end(), commands.begin(), commands.end());
    }
    return all;
}

std::shared_ptr<std::string> operand(CLI::App& app, const char* name, const char* help) {
    auto value = std::make_shared<std::string>();
    app.add_option(name, *value, help)->required()->type_name("");
    return value;
}

std::shared_ptr<std::string> optionalOperand(CLI::App& app, const char* name, const char* help) {
    auto value = std::make_shared<std::string>();
    app.add_option(name, *value, help)->type_name("");
    return value;
}

std::shared_ptr<bool> flag(CLI::App& app, const char* name, const char* help) {
    auto value = std::make_shared<bool>(false);
    app.add_flag(name, *value, help);
    return value;
}

std::shared_ptr<bool> passwordStdinFlag(CLI::App& app) {
    return flag(app, "--password-stdin", "read passwords as lines of standard input even from a terminal");
}

void emit(const Json& answer) {
    std::cout << answer.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

int confirm(const std::string& text, const Json& answer) {
    if (jsonOutput())
        emit(answer);
    else
        std::cout << text << "\n";
    return kOk;
}

bool parseId(const std::string& text, unsigned int& id) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value > UINT_MAX) throw UsageError("id out of range: " + text);
    id = static_cast<unsigned int>(value);
    return true;
}

namespace {

[[noreturn]] void noSuchAccount(const std::string& name) {
    throw usermanagement::UMException(usermanagement::UMError::UserNotFound, "no such account: " + name,
                                      umlog::Ctx::getCtx().getUsername(), true);
}

}  // namespace

Account resolveUser(const std::string& nameOrUid) {
    setSubject(nameOrUid);
    Account account;
    account.name = nameOrUid;
    const bool found =
        parseId(nameOrUid, account.uid)
            ? systemutilities::LinuxUserSystem::getUserName(account.uid, account.name, account.profileGid)
            : systemutilities::LinuxUserSystem::getUserIds(nameOrUid.c_str(), &account.uid, &account.profileGid);
    if (!found) noSuchAccount(nameOrUid);
    return account;
}

Account resolveName(const std::string& name) {
    setSubject(name);
    Account account;
    account.name = name;
    if (!systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &account.uid, &account.profileGid))
        noSuchAccount(name);
    return account;
}

Options& mutableOptions() {
    static Options options;
    return options;
}

const Options& options() { return mutableOptions(); }

ActingAs::ActingAs() {
    const std::string& name = options().actingAs;
    if (name.empty()) return;
    const std::string about = subject();
    // At once, rather than the switch's own failure after the pause.  A name only: the switch
    // takes its argument as a name, so digits naming another account's uid must not pass here.
    resolveName(name);
    setSubject(about);
    m_permission.setUserPermission(name);
    umlog::Ctx::getCtx().setUsername(name);
}

namespace {

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

std::string escaped(const std::string& text, bool quote) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\' || (quote && c == '"')) {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (isControl(byte)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace

std::string printable(const std::string& text) { return escaped(text, false); }

std::string quoted(const std::string& text) { return '"' + escaped(text, true) + '"'; }

namespace {

constexpr const char* kDefaultConfig = tvc::deviceconfig::kDefaultPath;

constexpr const char* kFooter =
    "Global options go before or after the command.  Passwords are never taken from the\n"
    "command line: umctl asks for them without echo, or reads one line each from standard input.\n"
    "\n"
    "Exit status: 0 done; 1 not found, or the library refused; 2 bad command line or bad\n"
    "configuration file.  Errors are one line on stderr, \"umctl: <message>\"; with --json\n"
    "every answer is one JSON object on one line of stdout, an error as\n"
    "{\"error\":MESSAGE,\"code\":LIBRARY-ERROR-ID,\"status\":EXIT-STATUS,\"detail\":{...}}.\n"
    "\n"
    "umctl help COMMAND (or umctl COMMAND --help) describes one command.";

constexpr const char* kCommandFooter =
    "\nGlobal options, before or after the command: --json, --as NAME, --config FILE (umctl --help).";

// Who runs umctl, for the exceptions and log lines of this run.
std::string invokingUser() {
    std::string name;
    unsigned int profile = 0;
    if (systemutilities::LinuxUserSystem::getUserName(getuid(), name, profile)) return name;
    return std::to_string(getuid());
}

// The operator's message for a command line CLI11 refused.
std::string usageMessage(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    std::string command = chosen.empty() ? std::string() : chosen.front()->get_name();
    const std::vector<std::string> extras = app.remaining(true);
    // An unknown option before the command is not the command's.
    if (!command.empty() && !extras.empty())
        for (int i = 1; i < argc && argv[i] != command; ++i)
            if (argv[i] == extras.front()) command.clear();
    const std::string help = command.empty() ? "umctl --help" : "umctl " + command + " --help";
    // A command that reads passwords never echoes an operand it refused, nor the value given to
    // one of its flags: that may well be a password typed on the command line, and the message
    // goes to terminals and logs.  A misspelt option is still named.
    const bool extraOperand = dynamic_cast<const CLI::ExtrasError*>(&error) && !extras.empty() &&
                              extras.front().rfind('-', 0) != 0;
    if (!command.empty() && chosen.front()->get_option_no_throw("--password-stdin") != nullptr &&
        (extraOperand || dynamic_cast<const CLI::ConversionError*>(&error)))
        return "unexpected argument for " + command +
               " (passwords are never taken from the command line; " + help + ")";
    // Without a command, a word CLI11 left over is what it could not take for one.
    if (dynamic_cast<const CLI::ExtrasError*>(&error) || (command.empty() && !extras.empty())) {
        const std::string word = extras.empty() ? std::string() : extras.front();
        if (command.empty())
            return (word.rfind('-', 0) == 0 ? "unknown option: " : "unknown command: ") + word + " (" + help +
                   " lists them)";
        return (word.rfind('-', 0) == 0 ? "unknown option for " : "unexpected argument for ") + command + ": " +
               word + " (" + help + ")";
    }
    if (command.empty() && dynamic_cast<const CLI::RequiredError*>(&error))
        return "usage: umctl [OPTIONS] COMMAND [ARGS...] (umctl --help lists the commands)";
    return (command.empty() ? std::string() : command + ": ") + error.what() + " (" + help + ")";
}

// --json, found before CLI11 has parsed anything, so that a refused command line is answered
// in JSON too.
bool wantsJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") return false;
        if (word == "--json") return true;
    }
    return false;
}

}  // namespace

}  // namespace umctl

int main(int argc, char** argv) {
    using namespace umctl;
    Options& options = mutableOptions();
    options.json = wantsJson(argc, argv);
    options.config = kDefaultConfig;

    CLI::App app("umctl: the accounts of the device, through libtvc_usermanagement.", "umctl");
    app.footer(kFooter);
    app.require_subcommand(1);
    app.fallthrough();  // the global options also after the command
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("SUBCOMMANDS", "COMMANDS");
    app.add_flag("--json", options.json, "every answer, error included, as one JSON object on one line of stdout");
    app.add_option("--as", options.actingAs, "run the command acting as account NAME (the rights checks judge it)")
        ->type_name("NAME");
    app.add_option("--config", options.config, "the device configuration file")
        ->type_name("FILE")
        ->default_str(kDefaultConfig);

    Run selected;
    bool switchesItself = false;
    for (const Command& command : allCommands()) {
        CLI::App* sub = app.add_subcommand(command.name, command.description)->group("Commands");
        sub->footer(std::string("Example:\n  ") + command.example + "\n" + kCommandFooter);
        const Run run = command.define(*sub);
        const bool itself = command.switchesItself;
        sub->callback([&selected, &switchesItself, run, itself] {
            selected = run;
            switchesItself = itself;
        });
    }
    CLI::App* help = app.add_subcommand("help", "describe every command, or one")->group("Commands");
    help->footer("Example:\n  umctl help create");
    const auto topic = optionalOperand(*help, "COMMAND", "the command to describe");
    help->callback([&] {
        selected = [&app, topic] {
            std::string text;
            if (topic->empty()) text = app.get_formatter()->make_help(&app, "umctl", CLI::AppFormatMode::Normal);
            for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
                if (!topic->empty() && sub->get_name() == *topic) text = sub->help("umctl");
            if (text.empty()) throw UsageError("unknown command: " + *topic + " (umctl --help lists them)");
            if (jsonOutput())
                emit({{"help", text}});
            else
                std::cout << text;
            return kOk;
        };
        switchesItself = true;
    });

    try {
        app.parse(argc, argv);
        if (app.count("--as") != 0 && options.actingAs.empty()) throw UsageError("--as needs an account name");
        options.configGiven = app.count("--config") != 0;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() != 0) return reportUsage(usageMessage(app, e, argc, argv));
        // --help, of umctl or of the command given
        if (options.json)
            emit({{"help", app.help()}});
        else
            std::cout << app.help();
        return kOk;
    } catch (...) {
        return reportFailure();
    }

    umlog::Ctx& context = umlog::Ctx::getCtx();
    try {
        installAuditSink();
        try {
            installConfiguration();
        } catch (const tvc::deviceconfig::ConfigError& e) {
            return reportUsage(e.what());  // "FILE:LINE: reason", status 2
        }
        context.setIP("cli");
        context.setProtocol(umlog::Ctx::Cli);
        context.setUsername(invokingUser());
        if (switchesItself) return selected();
        const ActingAs scope;
        return selected();
    } catch (...) {
        return reportFailure();
    }
}
