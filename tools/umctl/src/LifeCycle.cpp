// umctl create, rename, set-profile, enable, disable, remove, unlock: an account's life cycle
// through the library's own operations, each with its rights check (judging the --as account,
// or root), its audit events and its exceptions.  The account is looked up with the acting
// identity too: a refused lookup is as much the library's answer as a refused change.
//
// Each command prints one confirmation line on success, for people and scripts alike.
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

// create NAME --profile ID [--disabled] [--must-change] [--password-stdin]
int create(const Args& args) {
    const CommandLine line =
        splitOptions("create", args, 1, {"--disabled", "--must-change", "--password-stdin"}, {"--profile"});
    if (!line.has("--profile")) badUsage("create");
    const int profileId = parseProfileId(line.options.at("--profile"));
    Secret password;
    PasswordInput(line.has("--password-stdin")).readNew("New password: ", password);
    const User user = User::createUser(line.operands[0], password.text(), profileId, !line.has("--disabled"),
                                       line.has("--must-change"), nullptr);
    std::cout << "created " << printable(user.getUserName()) << " uid " << user.getUid() << "\n";
    return kOk;
}

int rename(const Args& args) {
    User user(args[0]);
    user.updateUser(&args[1], nullptr, nullptr, nullptr, nullptr, nullptr);
    std::cout << "renamed " << printable(args[0]) << " to " << printable(user.getUserName()) << "\n";
    return kOk;
}

int setProfile(const Args& args) {
    const int profileId = parseProfileId(args[1]);
    User user(args[0]);
    user.updateUser(nullptr, &profileId, nullptr, nullptr, nullptr, nullptr);
    std::cout << "moved " << printable(user.getUserName()) << " to profile "
              << printable(user.getProfile().getName()) << " (id " << user.getProfile().getId() << ")\n";
    return kOk;
}

// enable and disable.  Enabling also ends a lock by failed logins (the library resets the count).
int setActive(const std::string& name, bool active) {
    User user(name);
    user.updateUser(nullptr, nullptr, &active, nullptr, nullptr, nullptr);
    std::cout << (active ? "enabled " : "disabled ") << printable(user.getUserName()) << "\n";
    return kOk;
}

int enable(const Args& args) { return setActive(args[0], true); }
int disable(const Args& args) { return setActive(args[0], false); }

int remove(const Args& args) {
    User user(args[0]);
    user.removeUser();
    std::cout << "removed " << printable(args[0]) << "\n";
    return kOk;
}

// Resets the failed-login count whether or not it reached the limit; the library logs the
// unlock only when the account was locked.
int unlock(const Args& args) {
    User user(args[0]);
    user.unLock();
    std::cout << "unlocked " << printable(user.getUserName()) << "\n";
    return kOk;
}

}  // namespace

std::vector<Command> lifeCycleCommands() {
    return {
        {"create", "NAME --profile ID [--disabled] [--must-change] [--password-stdin]", 3, 6, create},
        {"rename", "OLD NEW", 2, 2, rename},
        {"set-profile", "NAME ID", 2, 2, setProfile},
        {"enable", "NAME", 1, 1, enable},
        {"disable", "NAME", 1, 1, disable},
        {"remove", "NAME", 1, 1, remove},
        {"unlock", "NAME", 1, 1, unlock},
    };
}

}  // namespace umctl
