// The identity switch behind SystemPermission::setUserPermission.  Its two forms share it: by
// name here in src/system, with an account object next to the account type (src/accounts).
#pragma once

#include <sys/types.h>

#include <functional>

namespace usermanagement::detail {

// The identity a SystemPermission object recorded at construction.
struct Snapshot {
    uid_t ruid, euid, suid;
    gid_t rgid, egid, sgid;
    const unsigned int* groups;  // null when they could not be recorded
    int count;
};

// From effective root, puts the calling thread into the account's identity (groups, group id,
// user id, read back), then runs `record`, which records the account in the thread's log
// context.  When anything fails, the thread is put back to `recorded` before the exception goes
// on (or, when that is impossible, the process ends: SystemPermission's destructor).
void actAsOrRollBack(const Snapshot& recorded, uid_t uid, gid_t gid, const gid_t* groups, int count,
                     const std::function<void()>& record);

}  // namespace usermanagement::detail
