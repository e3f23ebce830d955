#include <usermanagement/Rbac.h>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>

#include "access/ProfileRoles.h"
#include "foundation/Raise.h"

namespace usermanagement {

namespace {

using detail::raise;
using systemutilities::LinuxUserSystem;

template <class Key>
[[noreturn]] void roleNotFound(const Key& key) {
    raise<UMException>(UMError::RoleError, key, " :Role not found");
}

using detail::roleGids;
using detail::roleIds;

ProfileDefinition& catalogue() { return ProfileDefinition::GetProfileDefinition(); }

}  // namespace

unsigned int Rbac::RetrieveUserId(const std::string& name) {
    unsigned int uid = 0;
    if (!LinuxUserSystem::getUserIds(name.c_str(), &uid, nullptr))
        raise<UMException>(UMError::UserNotFound, name, " :User not found");
    return uid;
}

unsigned int Rbac::RetrieveProfileGidFromUser(const std::string& name) {
    unsigned int gid = 0;
    if (!LinuxUserSystem::getUserIds(name.c_str(), nullptr, &gid)) roleNotFound(name);
    return gid;
}

unsigned int Rbac::RetrieveProfileGidFromUser(unsigned int uid) {
    std::string name;
    unsigned int gid = 0;
    if (!LinuxUserSystem::getUserName(uid, name, gid)) roleNotFound(uid);
    return gid;
}

unsigned int Rbac::RetrieveRoleGid(const std::string& name) {
    unsigned int gid = 0;
    if (!LinuxUserSystem::getGroupGid(name.c_str(), gid)) roleNotFound(name);
    return gid;
}

unsigned int Rbac::RetrieveProfileGid(const std::string& name) { return RetrieveRoleGid(name); }

std::string Rbac::RetrieveRoleName(unsigned int gid) {
    std::string name;
    if (!LinuxUserSystem::getGroupName(gid, name)) roleNotFound(gid);
    return name;
}

// The queries through an account object are with the account type, in
// src/accounts/RbacAccounts.cpp.

int Rbac::RetrieveProfileId(const std::string& name) { return catalogue().getProfile(name).getId(); }
std::vector<unsigned int> Rbac::RetrieveRolesGidFromProfile(const std::string& name) {
    return roleGids(catalogue().getProfile(name));
}
std::vector<unsigned int> Rbac::RetrieveRolesGidFromProfile(int id) { return roleGids(catalogue().getProfile(id)); }
std::vector<int> Rbac::RetrieveRolesIdFromProfile(const std::string& name) {
    return roleIds(catalogue().getProfile(name));
}
std::vector<int> Rbac::RetrieveRolesIdFromProfile(int id) { return roleIds(catalogue().getProfile(id)); }
int Rbac::RetrieveRoleId(const std::string& name) { return catalogue().getRole(name).getId(); }
std::string Rbac::RetrieveRoleName(int id) { return catalogue().getRole(id).getName(); }

}  // namespace usermanagement
