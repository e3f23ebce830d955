// umctl: command-line host of libtvc_usermanagement.
//
//     umctl [--json] [--as NAME] COMMAND [ARGS...]
//
// Exit status 0 on success, 1 when something is not found or the library refuses, 2 on a bad
// command line.  Every error is one line on stderr, the names and texts it echoes made
// printable (control characters escaped); with --json a library failure also prints the
// library's JSON answer on stdout, as the web front end would receive it.  With --as the
// command runs with the thread acting as account NAME, as a device's web server serves a
// logged-in operator: the library's rights checks judge that account.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>

#include <systemutilities/LinuxUserSystem.h>
#include <tarvicexception/TvcException.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>

#include "Command.h"

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

namespace {

std::string usageLine(const Command& command) {
    std::string line = std::string("umctl [--json] [--as NAME] ") + command.name;
    if (*command.arguments) line += std::string(" ") + command.arguments;
    return line;
}

}  // namespace

void badUsage(const std::string& command) {
    for (const Command& entry : allCommands())
        if (command == entry.name) throw UsageError("usage: " + usageLine(entry));
    throw UsageError("unknown command: " + command);
}

CommandLine splitOptions(const std::string& command, const Args& args, std::size_t operands,
                         std::initializer_list<const char*> switches, std::initializer_list<const char*> valued) {
    const auto among = [](const std::string& word, std::initializer_list<const char*> names) {
        for (const char* name : names)
            if (word == name) return true;
        return false;
    };
    CommandLine line;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (word.rfind("--", 0) != 0) {
            line.operands.push_back(word);
        } else if (among(word, switches)) {
            line.options[word];
        } else if (among(word, valued)) {
            if (i + 1 == args.size()) throw UsageError(word + " needs a value");
            line.options[word] = args[++i];
        } else {
            throw UsageError("unknown option: " + word);
        }
    }
    if (line.operands.size() != operands) badUsage(command);
    return line;
}

bool parseId(const std::string& text, unsigned int& id) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value > UINT_MAX) throw UsageError("id out of range: " + text);
    id = static_cast<unsigned int>(value);
    return true;
}

void notFound(int code, const std::string& message) {
    throw usermanagement::UMException(code, message, umlog::Ctx::getCtx().getUsername(), true);
}

Account resolveUser(const std::string& nameOrUid) {
    Account account;
    account.name = nameOrUid;
    const bool found =
        parseId(nameOrUid, account.uid)
            ? systemutilities::LinuxUserSystem::getUserName(account.uid, account.name, account.profileGid)
            : systemutilities::LinuxUserSystem::getUserIds(nameOrUid.c_str(), &account.uid, &account.profileGid);
    if (!found) notFound(usermanagement::UMError::UserNotFound, "no such user: " + nameOrUid);
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
    resolveUser(name);  // "no such user" rather than the switch's own failure
    m_permission.setUserPermission(name);
    umlog::Ctx::getCtx().setUsername(name);
}

namespace {

// The length of the valid UTF-8 sequence that starts at `at`, or 0 when the byte there starts
// none: overlong forms, surrogates (U+D800-U+DFFF) and code points beyond U+10FFFF are invalid.
std::size_t utf8Length(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const unsigned int lead = byte(at);
    std::size_t length = 0;
    unsigned int low = 0x80, high = 0xbf;  // the range of the second byte
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        if (lead == 0xe0) low = 0xa0;   // overlong below U+0800
        if (lead == 0xed) high = 0x9f;  // surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        if (lead == 0xf0) low = 0x90;   // overlong below U+10000
        if (lead == 0xf4) high = 0x8f;  // beyond U+10FFFF
    } else {
        return 0;  // a continuation byte, an overlong lead (0xc0, 0xc1) or 0xf5-0xff
    }
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
    return length;
}

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

std::string jsonString(const std::string& text) {
    std::string json = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        const std::size_t length = utf8Length(text, i);
        if (length == 0) {
            json += "\\ufffd";
            ++i;
            continue;
        }
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (isControl(static_cast<unsigned char>(c))) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
            json += escape;
        } else {
            json.append(text, i, length);
        }
        i += length;
    }
    return json + "\"";
}

std::string printable(const std::string& text) { return escaped(text, false); }

std::string quoted(const std::string& text) { return '"' + escaped(text, true) + '"'; }

namespace {

void printHelp(const std::vector<Command>& commands) {
    std::cout << "usage:\n";
    for (const Command& command : commands) std::cout << "  " << usageLine(command) << "\n";
}

// Who runs umctl, for the exceptions and log lines of this run.
std::string invokingUser() {
    std::string name;
    unsigned int profile = 0;
    if (systemutilities::LinuxUserSystem::getUserName(getuid(), name, profile)) return name;
    return std::to_string(getuid());
}

int run(const std::vector<Command>& commands, const Args& words) {
    if (words.empty())
        throw UsageError("usage: umctl [--json] [--as NAME] COMMAND [ARGS...] (umctl --help lists them)");
    for (const Command& command : commands) {
        if (words[0] != command.name) continue;
        const Args args(words.begin() + 1, words.end());
        if (args.size() < command.minArgs || args.size() > command.maxArgs)
            throw UsageError("usage: " + usageLine(command));
        if (command.switchesItself) return command.run(args);
        const ActingAs scope;
        return command.run(args);
    }
    throw UsageError("unknown command: " + words[0] + " (umctl --help lists them)");
}

}  // namespace

}  // namespace umctl

int main(int argc, char** argv) {
    using namespace umctl;
    const std::vector<Command> commands = allCommands();
    Options& options = mutableOptions();
    Args words;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string word = argv[i];
            if (word == "--json") {
                options.json = true;
            } else if (word == "--as") {
                if (i + 1 == argc || *argv[i + 1] == '\0') throw UsageError("--as needs an account name");
                options.actingAs = argv[++i];
            } else if (word == "-h" || word == "--help") {
                printHelp(commands);
                return kOk;
            } else {
                words.push_back(word);
            }
        }
    } catch (const UsageError& e) {
        std::cerr << "umctl: " << printable(e.what()) << "\n";
        return kUsage;
    }

    installAuditSink();
    installCatalogue();
    umlog::Ctx& context = umlog::Ctx::getCtx();
    context.setIP("cli");
    context.setProtocol(umlog::Ctx::Cli);

    try {
        context.setUsername(invokingUser());
        return run(commands, words);
    } catch (const UsageError& e) {
        std::cerr << "umctl: " << printable(e.what()) << "\n";
        return kUsage;
    } catch (tarvicexception::TvcException& e) {
        e.logCdsMessage();
        std::cerr << "umctl: " << printable(e.what()) << "\n";
        if (options.json) std::cout << e.getJsonAnswer() << "\n";
        return kFailed;
    } catch (const std::exception& e) {
        std::cerr << "umctl: " << printable(e.what()) << "\n";
        return kFailed;
    }
}
