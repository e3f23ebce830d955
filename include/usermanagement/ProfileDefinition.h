// The catalogue of the profiles and roles of the device.  The library never decides by itself
// which groups are profiles or roles: it asks the installed catalogue.  A host derives from
// ProfileDefinition, overrides buildProfiles (and the lookups if it wants), and installs its
// object once at start-up with setProfileDefinition; until then the built-in catalogue serves,
// which knows the profiles root (ids 1 and -1) and www-data (-2) and no roles.
//
// The content is one process-wide catalogue shared by every catalogue object, built on first
// use and rebuilt on request (getProfiles(true)).  A build fills the two tables g_profiles and
// g_roles; when it has finished, the library publishes a copy of them, and that copy is what
// every lookup reads until the next build has finished.  Lookups return copies of the one entry
// asked for; a lookup that finds nothing returns a placeholder on the group "nogroup" (profile
// id -4) instead of failing.
//
// Threads: any thread may look up, list or rebuild at any time.  Builds run one at a time; a
// reader never waits for one and sees the catalogue before it or after it, never a part of it.
// A build that throws publishes nothing.  Only builds the library runs (getProfiles(true), the
// first use, a use after m_init was cleared) are published: a host calls getProfiles(true)
// rather than buildProfiles to rebuild.
//
// The order of the virtual operations is part of the binary interface: hosts compiled against
// the device's headers override them by slot.
#pragma once

#include <atomic>
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

    // A copy of all profiles by id; builds the catalogue first when `refresh` is true or it
    // was never built.
    virtual std::map<int, UmProfile> getProfiles(bool refresh);
    // A copy of all roles by id; builds the catalogue only when it was never built.
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
    // Fills the tables g_profiles and g_roles (under m_mtx, with addProfile); the library calls
    // it, one build at a time, and publishes what it stored.  The built-in version empties them,
    // then adds the profiles root/1, root/-1 and www-data/-2.
    virtual void buildProfiles();

    // Installs `definition` (the object this is called on plays no other part).  Only the
    // address is kept: the host keeps the catalogue alive while the library may use it.
    void setProfileDefinition(ProfileDefinition& definition);
    // The installed catalogue; UMException 40 "No Profile Database" when none is installed.
    static ProfileDefinition& GetProfileDefinition();

    // Stores a copy of `profile` under its id and of each of its roles under the role's id.
    // An id already present keeps its entry.  Called by a buildProfiles the library runs, it
    // stores into the tables being built (the build holds m_mtx); called at any other time, it
    // adds the entries to the catalogue in use, which is replaced by a copy holding them.
    static void addProfile(UmProfile& profile);

    // Role ids are role gids minus this (4100).
    unsigned int getRoleBaseGid();
    // First profile gid (10000); offered to hosts for numbering their profiles.
    unsigned int getProfileBaseGid();

    // The tables a build fills; readers never read them.
    static std::map<int, UmProfile> g_profiles;
    static std::map<int, UmRole> g_roles;
    // True once a build was published; set false, the next use builds again.  Atomic because
    // readers check it without a lock (same size and alignment as the bool it replaced).
    static std::atomic<bool> m_init;
    // Held by a build while it changes the tables, and by the library while it copies them.
    static std::mutex m_mtx;
    static ProfileDefinition* m_ptrDefaultProfileDefinition;
};

}  // namespace usermanagement
