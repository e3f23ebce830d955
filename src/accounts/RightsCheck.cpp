// The built-in rights policy.  Two roles, named by the configuration: the user manager may do
// everything; the self-account role may look accounts up and change its own password.  Root
// may do everything; an account of the profile with id -2 (the web server's) may look accounts
// up.  The caller is the account the operation was started by (access/Caller.h): a thread that
// has switched its identity is judged under that identity, and a question asked while the
// library runs a step of its own as root is still judged on the operation's caller.
#include <usermanagement/UserDefinition.h>

#include <authnz/AuthNZException.h>
#include <usermanagement/User.h>

#include "access/Caller.h"

namespace usermanagement {

namespace {

constexpr int kWebServerProfile = -2;

bool inRole(const detail::Caller& caller, std::string (UserDefinition::*roleName)()) {
    return caller.hasRole((UserDefinition::GetUserDefinition().*roleName)());
}

bool allowed(UserDefinition::Action action, const detail::Caller& caller, const User* target) {
    const auto manager = [&] { return inRole(caller, &UserDefinition::getUserManagerRole); };
    const auto self = [&] { return inRole(caller, &UserDefinition::getSelfAccountRole); };
    const auto root = [&] { return caller.isRoot(); };
    switch (action) {
        case UserDefinition::CreateUser:
        case UserDefinition::RemoveUser:
        case UserDefinition::ManageUsers:
        case UserDefinition::UpdateUser:
            return root() || manager();
        case UserDefinition::ReadUser:
            return root() || manager() || self() || caller.profileId() == kWebServerProfile;
        case UserDefinition::UpdatePassword:
            return root() || manager() || (target != nullptr && target->getUid() == caller.uid() && self());
    }
    // An action this policy does not know is refused, even to root.
    return false;
}

}  // namespace

void UserDefinition::checkRight(Action action, User* target) {
    // Inside an operation this is the operation's caller; a question asked on its own (a host
    // asking what its user may do) records the thread's identity now.
    const detail::CallerScope operation;
    const detail::Caller& caller = operation.caller();
    if (!allowed(action, caller, target))
        throw authnz::AuthorizationException(authnz::AuthorizationError::NotAuthorized, "Not authorized",
                                             "Not authorized (checkUserManagementRight)", caller.name(), true);
}

}  // namespace usermanagement
