// Lookups in the system's user and group database (the glibc name service).  All lookups are
// reentrant and static; results come through out-parameters, which are written only when the
// lookup answers true.  False means "not found"; a database that cannot answer (a read error, a
// line before the entry longer than the largest buffer) raises UMSystemErrorException 12, so
// that an existing account never looks missing.  An entry is found also when a long line comes
// before it (a group with thousands of members): the lookup buffer grows up to 16 MiB.  A buffer
// that cannot be allocated raises UMSystemErrorException 12 too.  (getGroups answers false for
// an unreadable group list or group database.)
//
// Profile gid: an account's primary group id if it lies in 10000..19999; otherwise the first
// id in that range among the groups getgrouplist() reports for the account; otherwise the
// primary group id.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include <usermanagement/Export.h>

namespace usermanagement {
class UmGroup;
}

namespace systemutilities {

// Deleter for blocks obtained with malloc, for shared owners of lookup buffers.
struct TVC_UM_EXPORT free_delete {
    void operator()(void* block) const { std::free(block); }
};

class TVC_UM_EXPORT LinuxUserSystem {
public:
    static constexpr unsigned int kProfileGidFirst = 10000;
    static constexpr unsigned int kProfileGidLast = 19999;

    // uid and gid may be null; *gid receives the profile gid.
    static bool getUserIds(const char* name, unsigned int* uid, unsigned int* gid);
    // name and gid (the profile gid) of the account `uid`.
    static bool getUserName(unsigned int uid, std::string& name, unsigned int& gid);
    static bool getGroupGid(const char* name, unsigned int& gid);
    static bool getGroupName(unsigned int gid, std::string& name);

    // Appends one UmGroup per group of the account: its profile group and every group naming
    // it as a member, in getgrouplist() order.  False, with `groups` untouched, for an unknown
    // account or an unreadable group list or group database.
    static bool getGroups(unsigned int uid, std::vector<usermanagement::UmGroup>& groups);
    static bool getGroups(const char* name, std::vector<usermanagement::UmGroup>& groups);

    static bool isProfileGid(unsigned int gid) { return gid >= kProfileGidFirst && gid <= kProfileGidLast; }
};

}  // namespace systemutilities
