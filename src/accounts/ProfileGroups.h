// Which member lists an account belongs in, from the profile catalogue: a profile makes its
// accounts members of its roles' groups and of the groups those roles grant (the profile's own
// group is the account's primary group, listed nowhere).  The rules below feed the member-list
// rewrite of the account operations (files/GroupMembers.h).
#pragma once

#include <set>
#include <string>

#include <usermanagement/UmGroup.h>

#include "files/GroupMembers.h"

namespace usermanagement::detail {

class ProfileGroups {
public:
    // The groups `profile` grants, and every group the installed catalogue names (its profiles'
    // groups, their roles' groups and the groups those grant).
    explicit ProfileGroups(const UmProfile& profile);

    // A new account is listed exactly in the granted groups: whatever else names it was left by
    // another tool or by a removed account of that name, and would hand the new account rights
    // its profile does not give.
    MembershipRule forNewAccount() const;
    // A profile change brings every group the catalogue knows in line with the new profile: a
    // demoted account would otherwise keep its old role groups and their rights at the system
    // level.  Groups the catalogue does not know are the device's own business and keep the
    // account as they had it.
    MembershipRule forProfileChange() const;

private:
    std::set<std::string> m_granted;
    std::set<std::string> m_known;
};

// A rename: every list keeps the account as it had it, under the new name.
MembershipRule keepMemberships();

}  // namespace usermanagement::detail
