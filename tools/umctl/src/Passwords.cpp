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

int passwd(const std::string& name, bool fromStdin) {
    resolveName(name);
    User holder(name);
    const PasswordInput input(fromStdin);
    Secret current, next;
    input.read("Current password: ", current);
    input.readNew("New password: ", next);
    holder.updatePassword(current.text(), next.text(), clientAddress());
    return confirm("password changed: " + printable(holder.getUserName()),
                   {{"result", "password changed"}, {"name", holder.getUserName()}});
}

// The library judges the UpdatePassword right with the object the reset is called on as its
// target, so the call goes to the target's own object: on the caller's object, an account
// allowed to change its own password would pass the check for any account.
int resetPassword(const std::string& name, bool mustChange, bool fromStdin) {
    resolveName(name);
    User target(name);
    Secret password;
    PasswordInput(fromStdin).readNew("New password: ", password);
    target.updateAnyUserPassword(name, password.text(), mustChange, clientAddress(), true);
    return confirm("password reset: " + printable(name), {{"result", "password reset"}, {"name", name}});
}

// The rules the password-rules PAM service applies to the acting account (root without --as).
int checkPassword(bool fromStdin) {
    Secret password;
    PasswordInput(fromStdin).read("Password: ", password);
    User().checkPasswordStrenght(password.text());
    return confirm("password accepted", {{"result", "password accepted"}});
}

Run definePasswd(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    const auto fromStdin = passwordStdinFlag(app);
    return [name, fromStdin] { return passwd(*name, *fromStdin); };
}

Run defineResetPassword(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    const auto mustChange = flag(app, "--must-change", "the password must be changed at the next login");
    const auto fromStdin = passwordStdinFlag(app);
    return [name, mustChange, fromStdin] { return resetPassword(*name, *mustChange, *fromStdin); };
}

Run defineCheckPassword(CLI::App& app) {
    const auto fromStdin = passwordStdinFlag(app);
    return [fromStdin] { return checkPassword(*fromStdin); };
}

}  // namespace

std::vector<Command> passwordCommands() {
    return {
        {"passwd", "the holder's own password change: the current password, then the new one",
         "printf '%s\\n' 'Maple#Harbor42' 'Cedar#Window57' | umctl --as carol passwd carol", definePasswd},
        {"reset-password", "a manager's reset of an account's password, without the current one",
         "printf '%s\\n' 'Cedar#Window57' | umctl --as admin reset-password carla --must-change",
         defineResetPassword},
        {"check-password", "whether the password rules accept a password; nothing is stored",
         "printf '%s\\n' 'Tulip#Garden42' | umctl check-password", defineCheckPassword},
    };
}

}  // namespace umctl
