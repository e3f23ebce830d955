// Account and group lookups through the reentrant glibc calls, all made by DatabaseLookup.h:
// an entry behind a line that does not fit the first buffer is still found.
#include <systemutilities/LinuxUserSystem.h>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <vector>

#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>

#include "access/DatabaseLookup.h"
#include "foundation/Raise.h"

// The profile gid of an account whose primary group is `primary`: see the header.
// The list starts small and grows to what the account has (groupListOf): sized for the
// system's largest list (65 536 ids here), every lookup of an account such as root allocated
// and released 256 KB.
unsigned int usermanagement::detail::profileGidOf(const char* name, unsigned int primary) {
    using systemutilities::LinuxUserSystem;
    if (LinuxUserSystem::isProfileGid(primary)) return primary;
    std::vector<gid_t> groups;
    try {
        // Without a list there is nothing to search; the primary group stands.
        if (!groupListOf(name, primary, groups)) return primary;
    } catch (const std::bad_alloc&) {
        return primary;
    }
    for (const gid_t gid : groups)
        if (LinuxUserSystem::isProfileGid(gid)) return gid;
    return primary;
}

namespace systemutilities {

namespace {

using usermanagement::UMSystemErrorException;
using usermanagement::detail::LookupStatus;
using usermanagement::detail::profileGidOf;
using usermanagement::detail::raise;
namespace db = usermanagement::detail;

// A malloc'ed list of sysconf(_SC_NGROUPS_MAX) group ids for getGroups; `count` receives its
// capacity.  Throws code 12 when it cannot be had.
std::shared_ptr<unsigned int> groupIdList(int& count) {
    static_assert(sizeof(gid_t) == sizeof(unsigned int), "group ids are 32-bit");
    long max = sysconf(_SC_NGROUPS_MAX);
    unsigned int* block =
        max > 0 ? static_cast<unsigned int*>(std::malloc(sizeof(unsigned int) * static_cast<size_t>(max))) : nullptr;
    if (block == nullptr)
        raise<UMSystemErrorException>(usermanagement::UMSystemError::DatabaseLookup, "getGroups malloc error");
    count = static_cast<int>(max);
    return std::shared_ptr<unsigned int>(block, free_delete());
}

// The getGroups walk shared by both forms, once the account is known.  The groups are collected
// aside and appended at the end, so a failing UmGroup construction leaves `groups` as it was.
bool appendGroups(const char* name, unsigned int profileGid, std::shared_ptr<unsigned int> list, int count,
                  std::vector<usermanagement::UmGroup>& groups) {
    if (getgrouplist(name, profileGid, list.get(), &count) == -1) return false;
    std::vector<usermanagement::UmGroup> found;
    for (int i = 0; i < count; ++i) {
        const unsigned int gid = list.get()[i];
        const LookupStatus status = db::groupById(gid).status;
        if (status == LookupStatus::Failed) return false;
        // An id without a group entry (a stale primary gid) has no name to offer: skip it.
        if (status == LookupStatus::NotFound) continue;
        found.emplace_back(gid);
    }
    groups.insert(groups.end(), found.begin(), found.end());
    return true;
}

}  // namespace

bool LinuxUserSystem::getGroups(unsigned int uid, std::vector<usermanagement::UmGroup>& groups) {
    int count = 0;
    std::shared_ptr<unsigned int> list = groupIdList(count);
    std::string name;
    unsigned int profileGid = 0;
    if (!getUserName(uid, name, profileGid)) return false;
    return appendGroups(name.c_str(), profileGid, list, count, groups);
}

bool LinuxUserSystem::getGroups(const char* name, std::vector<usermanagement::UmGroup>& groups) {
    int count = 0;
    std::shared_ptr<unsigned int> list = groupIdList(count);
    unsigned int profileGid = 0;
    if (!getUserIds(name, nullptr, &profileGid)) return false;
    return appendGroups(name, profileGid, list, count, groups);
}

bool LinuxUserSystem::getUserIds(const char* name, unsigned int* uid, unsigned int* gid) {
    if (name == nullptr) return false;
    const auto user = db::userByName(name);
    if (!db::foundOrRaise(user, name)) return false;
    if (uid != nullptr) *uid = user.entry.pw_uid;
    if (gid != nullptr) *gid = profileGidOf(user.entry.pw_name, user.entry.pw_gid);
    return true;
}

bool LinuxUserSystem::getUserName(unsigned int uid, std::string& name, unsigned int& gid) {
    const auto user = db::userById(uid);
    if (!db::foundOrRaise(user, "getpwuid_r")) return false;
    name = user.entry.pw_name;
    gid = profileGidOf(user.entry.pw_name, user.entry.pw_gid);
    return true;
}

bool LinuxUserSystem::getGroupGid(const char* name, unsigned int& gid) {
    if (name == nullptr) return false;
    const auto group = db::groupByName(name);
    if (!db::foundOrRaise(group, name)) return false;
    gid = group.entry.gr_gid;
    return true;
}

bool LinuxUserSystem::getGroupName(unsigned int gid, std::string& name) {
    const auto group = db::groupById(gid);
    if (!db::foundOrRaise(group, "getgrgid_r")) return false;
    name = group.entry.gr_name;
    return true;
}

}  // namespace systemutilities
