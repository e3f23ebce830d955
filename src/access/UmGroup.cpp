#include <usermanagement/UmGroup.h>

#include <utility>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement {

using systemutilities::LinuxUserSystem;

bool UmGroup::m_exceptionMode = false;

// ---- UmGroup ----------------------------------------------------------------------------------

UmGroup::UmGroup(std::string name) : m_name(std::move(name)), m_gid(kUnresolvedGid) {
    try {
        unsigned int gid = 0;
        if (!LinuxUserSystem::getGroupGid(m_name.c_str(), gid))
            detail::raise<UMException>(UMError::RoleError, m_name, " (group): POSIX Group not found");
        m_gid = gid;
    } catch (const tarvicexception::TvcException&) {
        // Exception mode lets a host build a catalogue on a device whose group file lacks some
        // of its groups; the object is then usable by name only.  Only the library's own
        // failures are let go: running out of memory is never a missing group.
        if (!m_exceptionMode) throw;
    }
}

UmGroup::UmGroup(const char* name) : UmGroup(std::string(name == nullptr ? "" : name)) {}

UmGroup::UmGroup(unsigned int gid) : m_gid(gid) {
    if (!LinuxUserSystem::getGroupName(gid, m_name))
        detail::raise<UMException>(UMError::RoleError, gid, " (group): POSIX Group not found");
}

UmGroup::UmGroup(const UmGroup& other) = default;
UmGroup::UmGroup(UmGroup&& other) noexcept = default;
UmGroup& UmGroup::operator=(const UmGroup& other) = default;
UmGroup& UmGroup::operator=(UmGroup&& other) noexcept = default;
UmGroup::~UmGroup() = default;

void UmGroup::swap(UmGroup& other) noexcept {
    m_name.swap(other.m_name);
    std::swap(m_gid, other.m_gid);
}

std::ostream& operator<<(std::ostream& out, const UmGroup& group) {
    return out << "Group:[" << group.m_name << "] gid[" << group.m_gid << "]" << std::endl;
}

// ---- UmRole -----------------------------------------------------------------------------------

namespace {

// Role ids are catalogue keys derived from the gid; a gid below the base gives a negative id.
int roleIdFromGid(unsigned int gid) {
    return static_cast<int>(gid - ProfileDefinition::GetProfileDefinition().getRoleBaseGid());
}

}  // namespace

UmRole::UmRole(const std::string& name, int id) : UmGroup(name), m_id(id == -1 ? roleIdFromGid(m_gid) : id) {}

UmRole::UmRole(const UmRole& other) = default;
UmRole::UmRole(UmRole&& other) noexcept = default;
UmRole& UmRole::operator=(const UmRole& other) = default;
UmRole& UmRole::operator=(UmRole&& other) noexcept = default;
UmRole::~UmRole() = default;

void UmRole::swap(UmRole& other) noexcept {
    m_groups.swap(other.m_groups);
    std::swap(m_id, other.m_id);
}

void UmRole::add(const UmGroup& group) { m_groups.push_back(group); }

void UmRole::add(const UmRole& role) {
    // Copy first: `role` may be this very role.
    std::vector<UmGroup> granted = role.m_groups;
    m_groups.insert(m_groups.end(), granted.begin(), granted.end());
}

bool UmRole::isBelongingTo(const std::string& name) const {
    if (m_name == name) return true;
    for (const UmGroup& group : m_groups)
        if (group.m_name == name) return true;
    return false;
}

bool UmRole::isBelongingTo(unsigned int gid) const {
    if (m_gid == gid) return true;
    for (const UmGroup& group : m_groups)
        if (group.m_gid == gid) return true;
    return false;
}

std::ostream& operator<<(std::ostream& out, const UmRole& role) {
    out << "role:[" << role.m_name << "] id[" << role.m_id << "] gid[" << role.m_gid << "]" << std::endl;
    for (const UmGroup& group : role.m_groups) out << group;
    return out;
}

// ---- UmProfile --------------------------------------------------------------------------------

UmProfile::UmProfile(const std::string& name, int id) : UmGroup(name), m_id(id) {}

UmProfile::UmProfile(const UmProfile& other) : UmGroup(other), m_roles(other.m_roles), m_id(other.m_id) {}

UmProfile::UmProfile(UmProfile&& other) noexcept
    : UmGroup(std::move(other)), m_roles(std::move(other.m_roles)), m_id(other.m_id) {}

UmProfile& UmProfile::operator=(const UmProfile& other) {
    if (this != &other) {
        UmGroup::operator=(other);
        m_roles = other.m_roles;
        m_id = other.m_id;
    }
    return *this;
}

UmProfile& UmProfile::operator=(UmProfile&& other) noexcept {
    if (this != &other) {
        UmGroup::operator=(std::move(other));
        m_roles = std::move(other.m_roles);
        m_id = other.m_id;
    }
    return *this;
}

UmProfile::~UmProfile() = default;

void UmProfile::swap(UmProfile& other) noexcept {
    m_roles.swap(other.m_roles);
    std::swap(m_id, other.m_id);
}

void UmProfile::add(const UmRole& role) { m_roles.push_back(role); }

bool UmProfile::isBelongingToRole(const std::string& name) const {
    for (const UmRole& role : m_roles)
        if (role.m_name == name) return true;
    return false;
}

bool UmProfile::isBelongingToRole(int id) const {
    for (const UmRole& role : m_roles)
        if (role.m_id == id) return true;
    return false;
}

bool UmProfile::isBelongingToGroup(const std::string& name) const {
    for (const UmRole& role : m_roles)
        if (role.isBelongingTo(name)) return true;
    return false;
}

bool UmProfile::isBelongingToGroup(unsigned int gid) const {
    for (const UmRole& role : m_roles)
        if (role.isBelongingTo(gid)) return true;
    return false;
}

void UmProfile::updateList() {
    m_groupNames.clear();
    // emplace keeps an existing entry: the first name seen for a gid wins.
    for (const UmRole& role : m_roles) {
        m_groupNames.emplace(role.m_gid, role.m_name);
        for (const UmGroup& group : role.m_groups) m_groupNames.emplace(group.m_gid, group.m_name);
    }
}

void UmProfile::enableException() { m_exceptionMode = true; }
void UmProfile::disableException() { m_exceptionMode = false; }

std::ostream& operator<<(std::ostream& out, const UmProfile& profile) {
    out << "Profile:[" << profile.m_name << "] id[" << profile.m_id << "] gid[" << profile.m_gid << "]"
        << std::endl;
    for (const UmRole& role : profile.m_roles) out << role;
    out << "Groups list" << std::endl;
    for (const auto& [gid, name] : profile.m_groupNames) out << gid << " " << name << std::endl;
    return out;
}

}  // namespace usermanagement
