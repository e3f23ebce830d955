// The built-in rights policy.  Two roles, named by the configuration: the user manager may do
// everything; the self-account role may look accounts up and change its own password.  Root
// may do everything; an account of the profile with id -2 (the web server's) may look accounts
// up.  The caller is the account the process runs as at the moment of the call, so a thread
// that has switched its identity is judged under that identity.
#include <usermanagement/UserDefinition.h>

#include <authnz/AuthNZException.h>
#include <usermanagement/User.h>

namespace usermanagement {

namespace {

constexpr int kWebServerProfile = -2;

bool inRole(const User& caller, std::string (UserDefinition::*roleName)()) {
    return caller.isBelongingToRole((UserDefinition::GetUserDefinition().*roleName)());
}

bool allowed(UserDefinition::Action action, const User& caller, const User* target) {
    const auto manager = [&] { return inRole(caller, &UserDefinition::getUserManagerRole); };
    const auto self = [&] { return inRole(caller, &UserDefinition::getSelfAccountRole); };
    const auto root = [&] { return caller.getUid() == 0; };
    switch (action) {
        case UserDefinition::CreateUser:
        case UserDefinition::RemoveUser:
        case UserDefinition::ManageUsers:
        case UserDefinition::UpdateUser:
            return manager() || root();
        case UserDefinition::ReadUser:
            return manager() || self() || caller.getProfile().getId() == kWebServerProfile || root();
        case UserDefinition::UpdatePassword:
            return manager() || root() || (target != nullptr && target->isHimSelf() && self());
    }
    // An action this policy does not know is refused, even to root.
    return false;
}

}  // namespace

void UserDefinition::checkRight(Action action, User* target) {
    const User caller;
    if (!allowed(action, caller, target))
        throw authnz::AuthorizationException(authnz::AuthorizationError::NotAuthorized, "Not authorized",
                                             "Not authorized (checkUserManagementRight)", caller.getUserName(), true);
}

}  // namespace usermanagement
