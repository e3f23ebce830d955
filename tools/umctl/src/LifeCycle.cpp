// umctl create, rename, set-profile, enable, disable, remove, unlock: an account's life cycle
// through the library's own operations, each with its rights check (judging the --as account,
// or root), its audit events and its exceptions.  The account is looked up with the acting
// identity too: a refused lookup is as much the library's answer as a refused change.
//
// Each command prints one confirmation line on success, for people and scripts alike (with
// --json one object).  The named account is looked up in the system's database first, so that
// an unknown name is answered at once.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>

#include <usermanagement/User.h>

#include "Command.h"
#include "PasswordInput.h"

using usermanagement::User;

namespace umctl {

namespace {

// A profile id as the library takes it.  Negative ids pass: refusing them is the library's
// business, with its own error.
int parseProfileId(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        throw UsageError("not a profile id: " + text);
    return static_cast<int>(value);
}

struct CreateArgs {
    std::string name, profile;
    bool disabled = false, mustChange = false, passwordStdin = false;
};

int create(const CreateArgs& args) {
    setSubject(args.name);
    const int profileId = parseProfileId(args.profile);
    Secret password;
    PasswordInput(args.passwordStdin).readNew("New password: ", password);
    const User user = User::createUser(args.name, password.text(), profileId, !args.disabled, args.mustChange, nullptr);
    return confirm("created " + printable(user.getUserName()) + " uid " + std::to_string(user.getUid()),
                   {{"result", "created"}, {"name", user.getUserName()}, {"uid", user.getUid()}});
}

int rename(const std::string& from, const std::string& to) {
    resolveName(from);
    User user(from);
    setSubject(to);  // an account of that name already existing is the failure to expect
    user.updateUser(&to, nullptr, nullptr, nullptr, nullptr, nullptr);
    return confirm("renamed " + printable(from) + " to " + printable(user.getUserName()),
                   {{"result", "renamed"}, {"name", user.getUserName()}, {"from", from}});
}

int setProfile(const std::string& name, const std::string& id) {
    const int profileId = parseProfileId(id);
    resolveName(name);
    User user(name);
    user.updateUser(nullptr, &profileId, nullptr, nullptr, nullptr, nullptr);
    const std::string profile = user.getProfile().getName();
    return confirm("moved " + printable(user.getUserName()) + " to profile " + printable(profile) + " (id " +
                       std::to_string(user.getProfile().getId()) + ")",
                   {{"result", "moved"},
                    {"name", user.getUserName()},
                    {"profile", profile},
                    {"profileId", user.getProfile().getId()}});
}

// enable and disable.  Enabling also ends a lock by failed logins (the library resets the count).
int setActive(const std::string& name, bool active) {
    resolveName(name);
    User user(name);
    user.updateUser(nullptr, nullptr, &active, nullptr, nullptr, nullptr);
    const char* done = active ? "enabled" : "disabled";
    return confirm(std::string(done) + " " + printable(user.getUserName()),
                   {{"result", done}, {"name", user.getUserName()}});
}

int remove(const std::string& name) {
    resolveName(name);
    User user(name);
    user.removeUser();
    return confirm("removed " + printable(name), {{"result", "removed"}, {"name", name}});
}

// Resets the failed-login count whether or not it reached the limit; the library logs the
// unlock only when the account was locked.
int unlock(const std::string& name) {
    resolveName(name);
    User user(name);
    user.unLock();
    return confirm("unlocked " + printable(user.getUserName()), {{"result", "unlocked"}, {"name", user.getUserName()}});
}

Run defineCreate(CLI::App& app) {
    const auto args = std::make_shared<CreateArgs>();
    app.add_option("NAME", args->name, "the new account's name")->required()->type_name("");
    app.add_option("--profile", args->profile, "the profile's id (umctl profiles lists them)")
        ->required()
        ->type_name("ID");
    app.add_flag("--disabled", args->disabled, "create the account disabled");
    app.add_flag("--must-change", args->mustChange, "the password must be changed at the first login");
    app.add_flag("--password-stdin", args->passwordStdin,
                 "read the password as a line of standard input even from a terminal");
    return [args] { return create(*args); };
}

Run defineRename(CLI::App& app) {
    const auto from = operand(app, "OLD", "the account's name");
    const auto to = operand(app, "NEW", "its new name");
    return [from, to] { return rename(*from, *to); };
}

Run defineSetProfile(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    const auto id = operand(app, "ID", "the profile's id (umctl profiles lists them)");
    return [name, id] { return setProfile(*name, *id); };
}

Run defineEnable(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    return [name] { return setActive(*name, true); };
}

Run defineDisable(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    return [name] { return setActive(*name, false); };
}

Run defineRemove(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    return [name] { return remove(*name); };
}

Run defineUnlock(CLI::App& app) {
    const auto name = operand(app, "NAME", "the account's name");
    return [name] { return unlock(*name); };
}

}  // namespace

std::vector<Command> lifeCycleCommands() {
    return {
        {"create", "create an account with a profile; its password is asked for, or read from stdin",
         "printf '%s\\n' 'Maple#Harbor42' | umctl --as admin create carol --profile 2", defineCreate},
        {"rename", "rename an account", "umctl --as admin rename carol carla", defineRename},
        {"set-profile", "move an account to another profile", "umctl --as admin set-profile carla 1",
         defineSetProfile},
        {"enable", "enable an account (also ends a lock by failed logins)", "umctl --as admin enable carla",
         defineEnable},
        {"disable", "disable an account: its logins are refused", "umctl --as admin disable carla", defineDisable},
        {"remove", "remove an account", "umctl --as admin remove carla", defineRemove},
        {"unlock", "reset an account's failed-login count", "umctl --as admin unlock carla", defineUnlock},
    };
}

}  // namespace umctl
