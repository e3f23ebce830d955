#include <usermanagement/Utilities.h>

#include <pwd.h>

#include <usermanagement/UserDefinition.h>

namespace usermanagement::utilities {

std::vector<User> getUserList() {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    const unsigned int base = definition.getBaseUid();
    const unsigned int count = definition.getMaxUser();
    std::vector<User> users;
    setpwent();
    // Each User is built by name, which looks the account up again: a separate lookup that does
    // not disturb the enumeration's position.
    for (const passwd* entry; (entry = getpwent()) != nullptr;) {
        if (entry->pw_uid < base || entry->pw_uid - base >= count) continue;
        users.push_back(User(std::string(entry->pw_name)));
    }
    endpwent();
    return users;
}

}  // namespace usermanagement::utilities
