// The access model as values: a POSIX group (UmGroup), a role that is a group granting further
// groups (UmRole), and a profile that is a group bundling roles (UmProfile).  Every managed
// account has exactly one profile, its primary (profile) group.
//
// Groups are resolved against the system group database when they are constructed, so a value
// always names a group that existed at that moment.  The objects are plain values without locks.
//
// The order of the data members is part of the binary interface with existing hosts.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <usermanagement/Export.h>

namespace usermanagement {

class TVC_UM_EXPORT UmGroup {
public:
    // The gid a group keeps when its name could not be resolved while exception mode was on.
    // Nothing should rely on it; it is the "unknown id" of the system (-1 as unsigned).
    static constexpr unsigned int kUnresolvedGid = 4294967295u;

    // Resolves the gid of `name`.  An unknown name throws UMException 2
    // "<name> (group): POSIX Group not found", and a failed lookup buffer UMSystemErrorException
    // 12; with exception mode on both are swallowed and the gid stays kUnresolvedGid.
    UmGroup(std::string name);
    UmGroup(const char* name);
    // Resolves the name of `gid`; an unknown gid always throws UMException 2, whatever the
    // exception mode.
    UmGroup(unsigned int gid);

    UmGroup(const UmGroup& other);
    UmGroup(UmGroup&& other) noexcept;
    UmGroup& operator=(const UmGroup& other);
    UmGroup& operator=(UmGroup&& other) noexcept;
    virtual ~UmGroup();

    // Exchanges name and gid.
    void swap(UmGroup& other) noexcept;

    const std::string& getName() const { return m_name; }
    unsigned int getGid() const { return m_gid; }

    // When true, the name constructors swallow lookup failures.  Switched only through
    // UmProfile::enableException()/disableException(); process-wide and unsynchronised, so it
    // is to be set while no other thread constructs groups.
    static bool m_exceptionMode;

    std::string m_name;
    unsigned int m_gid;
};

class TVC_UM_EXPORT UmRole : public UmGroup {
public:
    // The role of group `name`.  With `id` -1 the id is derived from the gid: gid minus the
    // catalogue's role base gid (4100), which needs an installed catalogue (UMException 40
    // otherwise).
    UmRole(const std::string& name, int id);

    UmRole(const UmRole& other);
    UmRole(UmRole&& other) noexcept;
    UmRole& operator=(const UmRole& other);
    UmRole& operator=(UmRole&& other) noexcept;
    ~UmRole() override;

    // Exchanges the granted groups and the id only; name and gid stay with each object.
    void swap(UmRole& other) noexcept;

    // Appends `group`; a group added twice is granted twice.
    void add(const UmGroup& group);
    // Appends the groups `role` grants (not the group of `role` itself).
    void add(const UmRole& role);

    const std::vector<UmGroup>& getGroups() const { return m_groups; }
    int getId() const { return m_id; }

    // The role's own group or one of the groups it grants.
    bool isBelongingTo(const std::string& name) const;
    bool isBelongingTo(unsigned int gid) const;

    std::vector<UmGroup> m_groups;
    int m_id;
};

class TVC_UM_EXPORT UmProfile : public UmGroup {
public:
    // The profile of group `name` with catalogue id `id`, without roles.
    UmProfile(const std::string& name, int id);

    // Copies and moves carry name, gid, roles and id, never the group map: a new object starts
    // with an empty map, an assigned one keeps its own.
    UmProfile(const UmProfile& other);
    UmProfile(UmProfile&& other) noexcept;
    UmProfile& operator=(const UmProfile& other);
    UmProfile& operator=(UmProfile&& other) noexcept;
    ~UmProfile() override;

    // Exchanges roles and id only.
    void swap(UmProfile& other) noexcept;

    // Appends `role`; the group map is left as it is until the next updateList().
    void add(const UmRole& role);

    const std::vector<UmRole>& getRoles() const { return m_roles; }
    int getId() const { return m_id; }

    // Membership through the roles only: the profile's own group does not count.
    bool isBelongingToRole(const std::string& name) const;
    bool isBelongingToRole(int id) const;
    bool isBelongingToGroup(const std::string& name) const;
    bool isBelongingToGroup(unsigned int gid) const;

    // Rebuilds the group map from the roles: each role's gid, then the gids it grants; the first
    // name seen for a gid stays.  The map serves printing only.
    void updateList();

    static void enableException();
    static void disableException();

    std::vector<UmRole> m_roles;
    std::map<unsigned int, std::string> m_groupNames;
    int m_id;
};

// Diagnostic renderings, one std::endl-terminated line each:
//   Group:[<name>] gid[<gid>]
//   role:[<name>] id[<id>] gid[<gid>]        followed by its group lines
//   Profile:[<name>] id[<id>] gid[<gid>]     followed by its role blocks, "Groups list" and
//                                            one "<gid> <name>" line per group map entry
TVC_UM_EXPORT std::ostream& operator<<(std::ostream& out, const UmGroup& group);
TVC_UM_EXPORT std::ostream& operator<<(std::ostream& out, const UmRole& role);
TVC_UM_EXPORT std::ostream& operator<<(std::ostream& out, const UmProfile& profile);

}  // namespace usermanagement
