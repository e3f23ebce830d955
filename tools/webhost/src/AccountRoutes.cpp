// The account routes, GET /api/profiles and GET /api/audit.  Each runs on a thread acting as the
// session's account: the library judges that account on every call, whatever the host checked
// before.  An account route's target was looked up, its right asked and, for a change, its name
// compared with the one the client sent (Server.cpp) before the handler runs.
#include <authnz/AuthNZException.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/Utilities.h>

#include "AuditLog.h"
#include "Routes.h"

namespace webhost {

using usermanagement::User;
using usermanagement::UserDefinition;

namespace {

bool allowed(Action action, User* target) {
    try {
        UserDefinition::GetUserDefinition().checkRight(action, target);
        return true;
    } catch (const authnz::AuthorizationException&) {
        return false;
    }
}

// The account object; reads the state flags (the library's ReadUser check included).  The
// "can" flags are the library's answers for the acting account, so the pages offer what the
// library would allow.
Json accountJson(User& user) {
    user.updateState();
    return {{"uid", user.getUid()},
            {"name", user.getUserName()},
            {"profile", user.getProfile().getName()},
            {"profileId", user.getProfile().getId()},
            {"active", user.isActive()},
            {"locked", user.isLocked()},
            {"passwordExpired", user.isPasswordExpired()},
            {"can",
             {{"update", allowed(UserDefinition::UpdateUser, &user)},
              {"password", allowed(UserDefinition::UpdatePassword, &user)},
              {"unlock", allowed(UserDefinition::UpdateUser, &user)},
              {"remove", allowed(UserDefinition::RemoveUser, &user)}}}};
}

template <typename T>
std::optional<T> optionalField(const Json& body, const char* name) {
    if (!body.contains(name)) return std::nullopt;
    return body[name].get<T>();
}

void endSessionsOf(Call& call, const std::string& why) {
    call.sessions.endAllOf(call.uid);
    logSessionEvent("Web sessions ended <" + call.target->getUserName() + ">: " + why);
}

}  // namespace

void profiles(Call& call) {
    Json list = Json::array();
    for (const auto& [id, profile] : usermanagement::ProfileDefinition::GetProfileDefinition().getProfiles(false))
        if (id >= 0) list.push_back({{"id", id}, {"name", profile.getName()}});
    answer(call.res, 200, list);
}

void listAccounts(Call& call) {
    Json list = Json::array();
    for (User& user : usermanagement::utilities::getUserList()) list.push_back(accountJson(user));
    answer(call.res, 200, list);
}

void showAccount(Call& call) { answer(call.res, 200, accountJson(*call.target)); }

void createAccount(Call& call) {
    User user =
        User::createUser(call.body["name"].get<std::string>(), call.body["password"].get<std::string>(),
                         call.body["profileId"].get<int>(), optionalField<bool>(call.body, "active").value_or(true),
                         optionalField<bool>(call.body, "mustChange").value_or(false), nullptr);
    answer(call.res, 201, accountJson(user));
}

// A rename, a profile change or disabling ends the account's sessions: each changes what a
// session was opened for.  (The per-request check would end them too; this is at once.)
void updateAccount(Call& call) {
    User& target = *call.target;
    const std::string oldName = target.getUserName();
    const unsigned int oldGid = target.getGid();
    const std::optional<std::string> newName = optionalField<std::string>(call.body, "newName");
    const std::optional<int> profileId = optionalField<int>(call.body, "profileId");
    const std::optional<bool> active = optionalField<bool>(call.body, "active");
    target.updateUser(newName ? &*newName : nullptr, profileId ? &*profileId : nullptr, active ? &*active : nullptr,
                      nullptr, nullptr, nullptr);
    if (target.getUserName() != oldName || target.getGid() != oldGid || (active && !*active))
        endSessionsOf(call, "account changed");
    answer(call.res, 200, accountJson(target));
}

void unlockAccount(Call& call) {
    call.target->unLock();
    answer(call.res, 200, accountJson(*call.target));
}

// A reset is called on the target's own object: the library judges the right against it.
// One's own password changes through /api/me/password, with the current one: the library lets
// an account holder reset its own password without it, and a session left open in a browser
// would then be enough to take the account over for good.
void resetPassword(Call& call) {
    User& target = *call.target;
    if (target.getUid() == call.session->uid)
        throw authnz::AuthorizationException(authnz::AuthorizationError::NotAuthorized, "Not authorized",
                                             "one's own password changes with the current one", call.session->name,
                                             true);
    target.updateAnyUserPassword(target.getUserName(), call.body["password"].get<std::string>(),
                                 optionalField<bool>(call.body, "mustChange").value_or(false),
                                 umlog::Ctx::getCtx().getIp(), true);
    endSessionsOf(call, "password reset");
    answer(call.res, 200, accountJson(target));
}

void removeAccount(Call& call) {
    call.target->removeUser();
    endSessionsOf(call, "account removed");
    call.res.status = 204;
}

void auditEvents(Call& call) { answer(call.res, 200, AuditLog::installed().events()); }

}  // namespace webhost
