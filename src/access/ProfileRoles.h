// The gids or the ids of a profile's roles, in the profile's role order: what the Rbac
// queries answer for a profile, whether found in the catalogue or through an account.
#pragma once

#include <vector>

#include <usermanagement/UmGroup.h>

namespace usermanagement::detail {

inline std::vector<unsigned int> roleGids(const UmProfile& profile) {
    std::vector<unsigned int> gids;
    for (const UmRole& role : profile.getRoles()) gids.push_back(role.getGid());
    return gids;
}

inline std::vector<int> roleIds(const UmProfile& profile) {
    std::vector<int> ids;
    for (const UmRole& role : profile.getRoles()) ids.push_back(role.getId());
    return ids;
}

}  // namespace usermanagement::detail
