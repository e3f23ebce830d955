// umctl passwd, reset-password, check-password: the three ways a password reaches the library.
//
//   passwd NAME          the holder's own change: the current password, then the new one, both
//                        judged by the web-login PAM service (which stores the new one).  Knowing
//                        the current password is the authority, so the library checks no right.
//   reset-password NAME  a manager's reset, written into the shadow file: no current password,
//                        the UpdatePassword right instead.
//   check-password       the password rules alone; nothing is stored.
//
// Passwords come from PasswordInput (a no-echo prompt or standard input lines), never from
// the command line.  --password-stdin reads lines even from a terminal.
#include <iostream>
#include <string>

#include <umlog/Ctx.h>
#include <usermanagement/User.h>

#include "Command.h"
#include "PasswordInput.h"

using usermanagement::User;

namespace umctl {

namespace {

std::string clientAddress() { return umlog::Ctx::getCtx().getIp(); }

int passwd(const Args& args) {
    const CommandLine line = splitOptions("passwd", args, 1, {"--password-stdin"});
    User holder(line.operands[0]);
    const PasswordInput input(line.has("--password-stdin"));
    Secret current, next;
    input.read("Current password: ", current);
    input.readNew("New password: ", next);
    holder.updatePassword(current.text(), next.text(), clientAddress());
    std::cout << "password changed: " << printable(holder.getUserName()) << "\n";
    return kOk;
}

// The library judges the UpdatePassword right with the object the reset is called on as its
// target, so the call goes to the target's own object: on the caller's object, an account
// allowed to change its own password would pass the check for any account.
int resetPassword(const Args& args) {
    const CommandLine line = splitOptions("reset-password", args, 1, {"--must-change", "--password-stdin"});
    const std::string& name = line.operands[0];
    User target(name);
    Secret password;
    PasswordInput(line.has("--password-stdin")).readNew("New password: ", password);
    target.updateAnyUserPassword(name, password.text(), line.has("--must-change"), clientAddress(), true);
    std::cout << "password reset: " << printable(name) << "\n";
    return kOk;
}

// The rules the password-rules PAM service applies to the acting account (root without --as).
int checkPassword(const Args& args) {
    const CommandLine line = splitOptions("check-password", args, 0, {"--password-stdin"});
    Secret password;
    PasswordInput(line.has("--password-stdin")).read("Password: ", password);
    User().checkPasswordStrenght(password.text());
    std::cout << "password accepted\n";
    return kOk;
}

}  // namespace

std::vector<Command> passwordCommands() {
    return {
        {"passwd", "NAME [--password-stdin]", 1, 2, passwd},
        {"reset-password", "NAME [--must-change] [--password-stdin]", 1, 3, resetPassword},
        {"check-password", "[--password-stdin]", 0, 1, checkPassword},
    };
}

}  // namespace umctl
