// umctl list, umctl show NAME|UID: the managed accounts as the library's account objects see
// them (ids, profile, the four state flags, groups).  umctl can ACTION [TARGET]: the library's
// rights check for the calling account, or with --as for the account named there.
//
// The flags come from User::updateState(), which reads the tally and the shadow file; like every
// account read it is subject to the ReadUser right of the account umctl acts as.
#include <cctype>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <authnz/AuthNZException.h>
#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>
#include <usermanagement/Utilities.h>

#include "Command.h"

using usermanagement::User;
using usermanagement::UserDefinition;

namespace umctl {

namespace {

// One account looked up by NAME or UID.
User lookUp(const std::string& nameOrUid) {
    unsigned int uid = 0;
    return parseId(nameOrUid, uid) ? User(uid) : User(nameOrUid);
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }
const char* jsonBool(bool value) { return value ? "true" : "false"; }

// The account's groups, primary group first, as "<gid> <name>"; a group without an entry by its id.
std::vector<std::string> groupsOf(const User& user) {
    int count = 0;
    const gid_t* groups = user.getUserGroupsIds(count);
    std::vector<std::string> lines;
    for (int i = 0; groups != nullptr && i < count; ++i) {
        std::string name;
        if (!systemutilities::LinuxUserSystem::getGroupName(groups[i], name)) name.clear();
        lines.push_back(std::to_string(groups[i]) + (name.empty() ? "" : " " + printable(name)));
    }
    return lines;
}

std::string json(const User& user, bool withGroups) {
    std::string text =
        "{\"name\":" + jsonString(user.getUserName()) + ",\"uid\":" + std::to_string(user.getUid()) +
        ",\"gid\":" + std::to_string(user.getGid()) + ",\"profile\":" + jsonString(user.getProfile().getName()) +
        ",\"profileId\":" + std::to_string(user.getProfile().getId()) + ",\"active\":" + jsonBool(user.isActive()) +
        ",\"passwordExpired\":" + jsonBool(user.isPasswordExpired()) + ",\"locked\":" + jsonBool(user.isLocked()) +
        ",\"accountExpired\":" + jsonBool(user.isAccountExpired());
    if (withGroups) {
        text += ",\"groups\":[";
        int count = 0;
        const gid_t* groups = user.getUserGroupsIds(count);
        for (int i = 0; groups != nullptr && i < count; ++i) text += (i ? "," : "") + std::to_string(groups[i]);
        text += "]";
    }
    return text + "}";
}

int list(const Args&) {
    std::vector<User> users = usermanagement::utilities::getUserList();
    for (User& user : users) user.updateState();
    if (options().json) {
        std::string text = "[";
        for (std::size_t i = 0; i < users.size(); ++i) text += (i ? "," : "") + json(users[i], false);
        std::cout << text << "]\n";
        return kOk;
    }
    const auto row = [](const std::string& name, const std::string& uid, const std::string& profile,
                        const std::string& active, const std::string& expired, const std::string& locked,
                        const std::string& accountExpired) {
        std::string line;
        for (const auto& [text, width] : {std::pair{name, 12},
                                          {uid, 7},
                                          {profile, 16},
                                          {active, 8},
                                          {expired, 18},
                                          {locked, 8},
                                          {accountExpired, 0}}) {
            line += text;
            if (width > 0) line += std::string(text.size() < std::size_t(width) ? width - text.size() : 1, ' ');
        }
        std::cout << line << "\n";
    };
    row("NAME", "UID", "PROFILE", "ACTIVE", "PASSWORD-EXPIRED", "LOCKED", "ACCOUNT-EXPIRED");
    for (const User& user : users)
        row(printable(user.getUserName()), std::to_string(user.getUid()), printable(user.getProfile().getName()),
            yesNo(user.isActive()),
            yesNo(user.isPasswordExpired()), yesNo(user.isLocked()), yesNo(user.isAccountExpired()));
    return kOk;
}

int show(const Args& args) {
    User user = lookUp(args[0]);
    user.updateState();
    if (options().json) {
        std::cout << json(user, true) << "\n";
        return kOk;
    }
    std::cout << "name: " << printable(user.getUserName()) << "\nuid: " << user.getUid() << "\ngid: " << user.getGid()
              << "\nprofile: " << printable(user.getProfile().getName()) << " (id " << user.getProfile().getId()
              << ", gid " << user.getProfile().getGid() << ")\nactive: " << yesNo(user.isActive())
              << "\npassword expired: " << yesNo(user.isPasswordExpired()) << "\nlocked: " << yesNo(user.isLocked())
              << "\naccount expired: " << yesNo(user.isAccountExpired()) << "\ngroups:";
    for (const std::string& group : groupsOf(user)) std::cout << "\n  " << group;
    std::cout << "\n";
    return kOk;
}

constexpr std::pair<const char*, UserDefinition::Action> kActions[] = {
    {"CreateUser", UserDefinition::CreateUser}, {"RemoveUser", UserDefinition::RemoveUser},
    {"ReadUser", UserDefinition::ReadUser},     {"ManageUsers", UserDefinition::ManageUsers},
    {"UpdateUser", UserDefinition::UpdateUser}, {"UpdatePassword", UserDefinition::UpdatePassword},
};

UserDefinition::Action actionNamed(const std::string& name) {
    const auto lower = [](std::string text) {
        for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    };
    std::string known;
    for (const auto& [actionName, action] : kActions) {
        if (lower(name) == lower(actionName)) return action;
        known += std::string(known.empty() ? "" : ", ") + actionName;
    }
    throw UsageError("unknown action: " + name + " (one of " + known + ")");
}

// The target is looked up under umctl's own identity: the question is what the --as account
// may do to it, not whether that account may look it up first.
int can(const Args& args) {
    const UserDefinition::Action action = actionNamed(args[0]);
    std::optional<User> target;
    if (args.size() > 1) target = lookUp(args[1]);
    const ActingAs scope;
    try {
        UserDefinition::GetUserDefinition().checkRight(action, target ? &*target : nullptr);
    } catch (const authnz::AuthorizationException&) {
        std::cout << "refused\n";
        return kFailed;
    }
    std::cout << "allowed\n";
    return kOk;
}

}  // namespace

std::vector<Command> accountCommands() {
    return {
        {"list", "", 0, 0, list},
        {"show", "NAME|UID", 1, 1, show},
        {"can", "ACTION [NAME|UID]", 1, 2, can, true},
    };
}

}  // namespace umctl
