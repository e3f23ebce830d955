// Queries between users, profiles and roles and their numeric ids, for a host's web layer.
// Stateless.  The system-database queries answer for any account or group (they do not check
// that a group is a role or profile of the catalogue) and throw UMException when nothing is
// found: 5 "<name> :User not found" for RetrieveUserId, 2 "<key> :Role not found" for the
// others.  The user queries build a User (lookup and ReadUser rights check); the catalogue
// queries answer from the catalogue's placeholder for an unknown name or id (profile id -4 and
// no roles; role "nogroup").
#pragma once

#include <string>
#include <vector>

#include <usermanagement/Export.h>

namespace usermanagement {

class TVC_UM_EXPORT Rbac {
public:
    // System database.
    static unsigned int RetrieveUserId(const std::string& name);
    static unsigned int RetrieveProfileGidFromUser(const std::string& name);
    static unsigned int RetrieveProfileGidFromUser(unsigned int uid);
    static unsigned int RetrieveRoleGid(const std::string& name);
    static unsigned int RetrieveProfileGid(const std::string& name);
    static std::string RetrieveRoleName(unsigned int gid);

    // Through an account object.
    static int RetrieveProfileIdFromUser(const std::string& name);
    static int RetrieveProfileIdFromUser(unsigned int uid);
    static std::vector<unsigned int> RetrieveRolesGidFromUser(std::string name);
    static std::vector<unsigned int> RetrieveRolesGidFromUser(unsigned int uid);
    static std::vector<int> RetrieveRolesIdFromUser(const std::string& name);
    static std::vector<int> RetrieveRolesIdFromUser(unsigned int uid);

    // The profile catalogue.
    static int RetrieveProfileId(const std::string& name);
    static std::vector<unsigned int> RetrieveRolesGidFromProfile(const std::string& name);
    static std::vector<unsigned int> RetrieveRolesGidFromProfile(int id);
    static std::vector<int> RetrieveRolesIdFromProfile(const std::string& name);
    static std::vector<int> RetrieveRolesIdFromProfile(int id);
    static int RetrieveRoleId(const std::string& name);
    static std::string RetrieveRoleName(int id);
};

}  // namespace usermanagement
