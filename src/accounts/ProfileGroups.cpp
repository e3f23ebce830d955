#include "accounts/ProfileGroups.h"

#include <usermanagement/ProfileDefinition.h>

namespace usermanagement::detail {

namespace {

void addRole(std::set<std::string>& groups, const UmRole& role) {
    groups.insert(role.getName());
    for (const UmGroup& granted : role.getGroups()) groups.insert(granted.getName());
}

}  // namespace

ProfileGroups::ProfileGroups(const UmProfile& profile) {
    for (const UmRole& role : profile.getRoles()) addRole(m_granted, role);
    ProfileDefinition& catalogue = ProfileDefinition::GetProfileDefinition();
    for (const auto& [id, known] : catalogue.getProfiles(false)) {
        m_known.insert(known.getName());
        for (const UmRole& role : known.getRoles()) addRole(m_known, role);
    }
    for (const auto& [id, role] : catalogue.getRoles()) addRole(m_known, role);
}

MembershipRule ProfileGroups::forNewAccount() const {
    return [this](const std::string& group, bool) { return m_granted.count(group) != 0; };
}

MembershipRule ProfileGroups::forProfileChange() const {
    return [this](const std::string& group, bool listed) {
        return m_known.count(group) != 0 ? m_granted.count(group) != 0 : listed;
    };
}

MembershipRule keepMemberships() {
    return [](const std::string&, bool listed) { return listed; };
}

}  // namespace usermanagement::detail
