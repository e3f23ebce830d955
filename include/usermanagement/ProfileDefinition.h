// The catalogue of the profiles and roles of the device.  The library never decides by itself
// which groups are profiles or roles: it asks the installed catalogue.  A host derives from
// ProfileDefinition, overrides buildProfiles (and the lookups if it wants), and installs its
// object once at start-up with setProfileDefinition; until then the built-in catalogue serves,
// which knows the profiles root (ids 1 and -1) and www-data (-2) and no roles.
//
// The content lives in two process-wide tables shared by every catalogue object, filled on
// first use and refilled on request.  Lookups return copies; a lookup that finds nothing
// returns a placeholder on the group "nogroup" (profile id -4) instead of failing.
//
// Threads: only the built-in buildProfiles holds m_mtx.  Readers take no lock, so the host
// builds the catalogue (its first getProfiles) before using the library from several threads,
// and rebuilds only while no other thread reads it.
//
// The order of the virtual operations is part of the binary interface: hosts compiled against
// the device's headers override them by slot.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include <usermanagement/Export.h>
#include <usermanagement/UmGroup.h>

namespace usermanagement {

class TVC_UM_EXPORT ProfileDefinition {
public:
    ProfileDefinition() = default;
    ProfileDefinition(const ProfileDefinition&) = default;
    ProfileDefinition& operator=(const ProfileDefinition&) = default;

    // A copy of all profiles by id; builds the tables first when `refresh` is true or they
    // were never built.
    virtual std::map<int, UmProfile> getProfiles(bool refresh);
    // A copy of all roles by id; builds the tables only when they were never built.
    virtual std::map<int, UmRole> getRoles();
    // The first profile in ascending id order with this group name.
    virtual UmProfile getProfile(const std::string& name);
    // The profile stored under `id`.
    virtual UmProfile getProfile(int id);
    // The first profile in ascending id order with this gid.
    virtual UmProfile getProfile(unsigned int gid);
    // The first role in ascending id order with this group name.
    virtual UmRole getRole(const std::string& name);
    // The role stored under `id`.
    virtual UmRole getRole(int id);
    // The role stored under `id`: a lookup by role id like getRole(int), not by gid.
    virtual UmRole getRole(unsigned int id);
    virtual ~ProfileDefinition();
    // Fills the tables.  The built-in version empties them, then adds the profiles root/1,
    // root/-1 and www-data/-2 under m_mtx.
    virtual void buildProfiles();

    // Installs `definition` (the object this is called on plays no other part).  Only the
    // address is kept: the host keeps the catalogue alive while the library may use it.
    void setProfileDefinition(ProfileDefinition& definition);
    // The installed catalogue; UMException 40 "No Profile Database" when none is installed.
    static ProfileDefinition& GetProfileDefinition();

    // Stores a copy of `profile` under its id and of each of its roles under the role's id.
    // An id already present keeps its entry.  Takes no lock.
    static void addProfile(UmProfile& profile);

    // Role ids are role gids minus this (4100).
    unsigned int getRoleBaseGid();
    // First profile gid (10000); offered to hosts for numbering their profiles.
    unsigned int getProfileBaseGid();

    static std::map<int, UmProfile> g_profiles;
    static std::map<int, UmRole> g_roles;
    static bool m_init;
    static std::mutex m_mtx;
    static ProfileDefinition* m_ptrDefaultProfileDefinition;
};

}  // namespace usermanagement
