// The Rbac queries that answer through an account object (lookup and ReadUser rights check).
#include <usermanagement/Rbac.h>

#include <usermanagement/User.h>

#include "access/ProfileRoles.h"

namespace usermanagement {

using detail::roleGids;
using detail::roleIds;

int Rbac::RetrieveProfileIdFromUser(const std::string& name) { return User(name).getProfile().getId(); }
int Rbac::RetrieveProfileIdFromUser(unsigned int uid) { return User(uid).getProfile().getId(); }
std::vector<unsigned int> Rbac::RetrieveRolesGidFromUser(std::string name) { return roleGids(User(name).getProfile()); }
std::vector<unsigned int> Rbac::RetrieveRolesGidFromUser(unsigned int uid) { return roleGids(User(uid).getProfile()); }
std::vector<int> Rbac::RetrieveRolesIdFromUser(const std::string& name) { return roleIds(User(name).getProfile()); }
std::vector<int> Rbac::RetrieveRolesIdFromUser(unsigned int uid) { return roleIds(User(uid).getProfile()); }

}  // namespace usermanagement
