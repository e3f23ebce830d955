// umctl login NAME [--password-stdin]: a web login through the library, as the device's web
// server makes it: the password checked through the web-login PAM service, then the account
// check.  The password is read from the terminal without echo, or as one line from standard
// input.  Success prints "login ok: NAME"; a refusal is reported like every failure, and with
// --json its "detail" holds the library's JSON answer, what the web client would receive.
//
// The name goes to PAM as the web server would pass it, known or not: the login service's
// answer to an unknown name is part of what the command shows.
#include <iostream>
#include <memory>
#include <string>

#include <authnz/WebPam.h>
#include <umlog/Ctx.h>

#include "Command.h"
#include "PasswordInput.h"

namespace umctl {

namespace {

int login(const std::string& name, bool fromStdin) {
    setSubject(name);
    Secret password;
    PasswordInput(fromStdin).read("Password: ", password);
    const std::shared_ptr<authnz::WebPam> pam(
        authnz::WebPam::GetPAM(name, umlog::Ctx::getCtx().getIp(), authnz::WebPam::WebLogin));
    pam->pamAuthentication(password.text().c_str());
    pam->pamAccount();
    if (jsonOutput())
        emit({{"result", "login ok"}, {"name", name}});
    else
        std::cout << "login ok: " << printable(name) << "\n";
    return kOk;
}

Run defineLogin(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    const auto fromStdin = passwordStdinFlag(app);
    return [name, fromStdin] { return login(*name, *fromStdin); };
}

}  // namespace

std::vector<Command> loginCommands() {
    return {
        {"login", "a web login through the web-login PAM service and the account check",
         "printf '%s\\n' 'Viewer#2026' | umctl login viewer --password-stdin", defineLogin},
    };
}

}  // namespace umctl
