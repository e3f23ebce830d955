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

// One account looked up by NAME or UID, resolved at once first (Command.h: resolveUser).
User lookUp(const std::string& nameOrUid) {
    unsigned int uid = 0;
    resolveUser(nameOrUid);
    return parseId(nameOrUid, uid) ? User(uid) : User(nameOrUid);
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }

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

Json json(const User& user, bool withGroups) {
    Json answer{{"name", user.getUserName()},
                {"uid", user.getUid()},
                {"gid", user.getGid()},
                {"profile", user.getProfile().getName()},
                {"profileId", user.getProfile().getId()},
                {"active", user.isActive()},
                {"passwordExpired", user.isPasswordExpired()},
                {"locked", user.isLocked()},
                {"accountExpired", user.isAccountExpired()}};
    if (withGroups) {
        Json groups = Json::array();
        int count = 0;
        const gid_t* ids = user.getUserGroupsIds(count);
        for (int i = 0; ids != nullptr && i < count; ++i) groups.push_back(ids[i]);
        answer["groups"] = groups;
    }
    return answer;
}

int list() {
    std::vector<User> users = usermanagement::utilities::getUserList();
    for (User& user : users) user.updateState();
    if (jsonOutput()) {
        Json accounts = Json::array();
        for (const User& user : users) accounts.push_back(json(user, false));
        emit({{"accounts", accounts}});
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

int show(const std::string& nameOrUid) {
    User user = lookUp(nameOrUid);
    user.updateState();
    if (jsonOutput()) {
        emit(json(user, true));
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

std::pair<std::string, UserDefinition::Action> actionNamed(const std::string& name) {
    const auto lower = [](std::string text) {
        for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    };
    std::string known;
    for (const auto& [actionName, action] : kActions) {
        if (lower(name) == lower(actionName)) return {actionName, action};
        known += std::string(known.empty() ? "" : ", ") + actionName;
    }
    throw UsageError("unknown action: " + name + " (one of " + known + ")");
}

// The target is looked up under umctl's own identity: the question is what the --as account
// may do to it, not whether that account may look it up first.  A refusal is an answer, not
// a failure: "refused", exit status 1.
int can(const std::string& actionName, const std::string& targetName) {
    const auto [name, action] = actionNamed(actionName);
    std::optional<User> target;
    if (!targetName.empty()) target = lookUp(targetName);
    const ActingAs scope;
    bool allowed = true;
    try {
        UserDefinition::GetUserDefinition().checkRight(action, target ? &*target : nullptr);
    } catch (const authnz::AuthorizationException&) {
        allowed = false;
    }
    if (jsonOutput()) {
        Json answer{{"action", name}};
        if (target) answer["target"] = target->getUserName();
        answer["allowed"] = allowed;
        emit(answer);
    } else {
        std::cout << (allowed ? "allowed" : "refused") << "\n";
    }
    return allowed ? kOk : kFailed;
}

Run defineList(CLI::App&) { return list; }

Run defineShow(CLI::App& app) {
    const auto account = operand(app, "ACCOUNT", "account name or uid");
    return [account] { return show(*account); };
}

Run defineCan(CLI::App& app) {
    const auto action = operand(app, "ACTION", "CreateUser, RemoveUser, ReadUser, ManageUsers, UpdateUser or UpdatePassword");
    const auto target = optionalOperand(app, "TARGET", "the account acted on, by name or uid");
    return [action, target] { return can(*action, *target); };
}

}  // namespace

std::vector<Command> accountCommands() {
    return {
        {"list", "the managed accounts with their profile and state", "umctl --json list", defineList},
        {"show", "one account in detail: ids, profile, state, groups", "umctl show operator", defineShow},
        {"can", "whether the calling account (or the --as account) may do ACTION, to TARGET if given",
         "umctl --as viewer can UpdatePassword viewer", defineCan, true},
    };
}

}  // namespace umctl
