// Account and group lookups through the reentrant glibc calls.  Each lookup sizes its buffer
// once from sysconf and never grows it: an entry that does not fit reads as "not found".
#include <systemutilities/LinuxUserSystem.h>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>

#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace systemutilities {

namespace {

using usermanagement::UMSystemErrorException;
using usermanagement::detail::raise;

// A malloc'ed lookup buffer sized by sysconf(`sizeName`); throws code 12 when it cannot be had
// (sysconf answering -1 included).
std::shared_ptr<char> lookupBuffer(int sizeName, long& size) {
    size = sysconf(sizeName);
    char* block = size > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(size))) : nullptr;
    if (block == nullptr) raise<UMSystemErrorException>(12, "getGroupGid malloc error");
    return std::shared_ptr<char>(block, free_delete());
}

// The profile gid of an account whose primary group is `primary`: see the header.
unsigned int profileGidOf(const char* name, unsigned int primary) {
    if (LinuxUserSystem::isProfileGid(primary)) return primary;
    long max = sysconf(_SC_NGROUPS_MAX);
    if (max <= 0) return primary;
    std::shared_ptr<gid_t> list(static_cast<gid_t*>(std::malloc(sizeof(gid_t) * static_cast<size_t>(max))),
                                free_delete());
    // Without a list there is nothing to search; the primary group stands.
    if (!list) return primary;
    int count = static_cast<int>(max);
    if (getgrouplist(name, primary, list.get(), &count) == -1) return primary;
    for (int i = 0; i < count; ++i)
        if (LinuxUserSystem::isProfileGid(list.get()[i])) return list.get()[i];
    return primary;
}

}  // namespace

bool LinuxUserSystem::getUserIds(const char* name, unsigned int* uid, unsigned int* gid) {
    if (name == nullptr) return false;
    long size = 0;
    std::shared_ptr<char> buffer = lookupBuffer(_SC_GETPW_R_SIZE_MAX, size);
    struct passwd entry {};
    struct passwd* found = nullptr;
    if (getpwnam_r(name, &entry, buffer.get(), static_cast<size_t>(size), &found) != 0 || found == nullptr)
        return false;
    if (uid != nullptr) *uid = entry.pw_uid;
    if (gid != nullptr) *gid = profileGidOf(entry.pw_name, entry.pw_gid);
    return true;
}

bool LinuxUserSystem::getUserName(unsigned int uid, std::string& name, unsigned int& gid) {
    long size = 0;
    std::shared_ptr<char> buffer = lookupBuffer(_SC_GETPW_R_SIZE_MAX, size);
    struct passwd entry {};
    struct passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.get(), static_cast<size_t>(size), &found) != 0 || found == nullptr)
        return false;
    name = entry.pw_name;
    gid = profileGidOf(entry.pw_name, entry.pw_gid);
    return true;
}

bool LinuxUserSystem::getGroupGid(const char* name, unsigned int& gid) {
    if (name == nullptr) return false;
    long size = 0;
    std::shared_ptr<char> buffer = lookupBuffer(_SC_GETGR_R_SIZE_MAX, size);
    struct group entry {};
    struct group* found = nullptr;
    if (getgrnam_r(name, &entry, buffer.get(), static_cast<size_t>(size), &found) != 0 || found == nullptr)
        return false;
    gid = entry.gr_gid;
    return true;
}

bool LinuxUserSystem::getGroupName(unsigned int gid, std::string& name) {
    long size = 0;
    std::shared_ptr<char> buffer = lookupBuffer(_SC_GETGR_R_SIZE_MAX, size);
    struct group entry {};
    struct group* found = nullptr;
    if (getgrgid_r(gid, &entry, buffer.get(), static_cast<size_t>(size), &found) != 0 || found == nullptr)
        return false;
    name = entry.gr_name;
    return true;
}

}  // namespace systemutilities
