// umctl login NAME [--password-stdin]: a web login through the library, as the device's web
// server makes it: the password checked through the web-login PAM service, then the account
// check.  The password is read from the terminal without echo, or as one line from standard
// input.  Success prints "login ok: NAME"; a refusal prints the library's JSON answer (what the
// web client would receive) and its error line, and the audit sink shows the log lines.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <umlog/Ctx.h>

#include "Command.h"

namespace umctl {

namespace {

// Overwrites the password before its memory is given back.
class Secret {
public:
    Secret() = default;
    ~Secret() { explicit_bzero(m_text.data(), m_text.size()); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    std::string& text() { return m_text; }

private:
    std::string m_text;
};

// Echo off on the terminal for the object's lifetime.
class NoEcho {
public:
    explicit NoEcho(int fd) : m_fd(fd) {
        m_active = tcgetattr(fd, &m_saved) == 0;
        if (!m_active) return;
        termios quiet = m_saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        m_active = tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
    }
    ~NoEcho() {
        if (m_active) tcsetattr(m_fd, TCSAFLUSH, &m_saved);
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

private:
    int m_fd;
    termios m_saved{};
    bool m_active = false;
};

void readPassword(bool fromStdin, std::string& password) {
    if (fromStdin || !isatty(STDIN_FILENO)) {
        if (!std::getline(std::cin, password) && password.empty()) throw UsageError("no password on standard input");
        return;
    }
    std::cerr << "Password: " << std::flush;
    {
        const NoEcho quiet(STDIN_FILENO);
        std::getline(std::cin, password);
    }
    std::cerr << "\n";
}

int login(const Args& args) {
    if (args.size() == 2 && args[1] != "--password-stdin") throw UsageError("unknown option: " + args[1]);
    const std::string& name = args[0];
    Secret password;
    readPassword(args.size() == 2, password.text());
    const std::shared_ptr<authnz::WebPam> pam(
        authnz::WebPam::GetPAM(name, umlog::Ctx::getCtx().getIp(), authnz::WebPam::WebLogin));
    try {
        pam->pamAuthentication(password.text().c_str());
        pam->pamAccount();
    } catch (tarvicexception::TvcException& e) {
        // The answer the web client gets is the point of the command: shown with or without --json.
        e.logCdsMessage();
        std::cout << e.getJsonAnswer() << "\n";
        std::cerr << "umctl: " << e.what()
                  << (*e.getErrorDescription() ? std::string(": ") + e.getErrorDescription() : "") << "\n";
        return kFailed;
    }
    std::cout << "login ok: " << name << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> loginCommands() {
    return {
        {"login", "NAME [--password-stdin]", 1, 2, login},
    };
}

}  // namespace umctl
