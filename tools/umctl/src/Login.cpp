// umctl login NAME [--password-stdin]: a web login through the library, as the device's web
// server makes it: the password checked through the web-login PAM service, then the account
// check.  The password is read from the terminal without echo, or as one line from standard
// input.  Success prints "login ok: NAME"; a refusal prints the library's JSON answer (what the
// web client would receive) and its error line, and the audit sink shows the log lines.
#include <iostream>
#include <memory>
#include <string>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <umlog/Ctx.h>

#include "Command.h"
#include "PasswordInput.h"

namespace umctl {

namespace {

int login(const Args& args) {
    if (args.size() == 2 && args[1] != "--password-stdin") throw UsageError("unknown option: " + args[1]);
    const std::string& name = args[0];
    Secret password;
    PasswordInput(args.size() == 2).read("Password: ", password);
    const std::shared_ptr<authnz::WebPam> pam(
        authnz::WebPam::GetPAM(name, umlog::Ctx::getCtx().getIp(), authnz::WebPam::WebLogin));
    try {
        pam->pamAuthentication(password.text().c_str());
        pam->pamAccount();
    } catch (tarvicexception::TvcException& e) {
        // The answer the web client gets is the point of the command: shown with or without --json.
        e.logCdsMessage();
        std::cout << e.getJsonAnswer() << "\n";
        std::cerr << "umctl: " << printable(e.what())
                  << (*e.getErrorDescription() ? ": " + printable(e.getErrorDescription()) : "") << "\n";
        return kFailed;
    }
    std::cout << "login ok: " << printable(name) << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> loginCommands() {
    return {
        {"login", "NAME [--password-stdin]", 1, 2, login},
    };
}

}  // namespace umctl
