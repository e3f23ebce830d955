// The one way the library reads a single entry of the account or group database through the
// reentrant glibc calls (getpwnam_r, getpwuid_r, getgrnam_r, getgrgid_r).
//
// Those calls parse the entries into a buffer of the caller, and the files backend answers
// ERANGE as soon as *any* line it has to parse on the way does not fit, not only the one
// looked for: behind a group with thousands of members, every later group would read as
// missing with a fixed buffer.  So the buffer starts at the size sysconf suggests and doubles
// on ERANGE up to kMaxLookupBuffer.
//
// Callers must be able to tell "no such entry" from "the database could not answer": handing
// out a uid because a lookup failed could give two accounts the same id.  The result says
// which, with the error number of a failure.
//
// Header-only and internal (hidden with the library's other inline code): src/files and the
// script launcher use it too.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

// Largest buffer a lookup grows to; an entry needing more is a failure (ERANGE), not a miss.
// The files backend parses every line before the one looked for in the same buffer, so one
// oversized line (a field of 100 MB) fails the lookups of every entry behind it: Failed, never
// NotFound.
constexpr std::size_t kMaxLookupBuffer = std::size_t{16} << 20;

enum class LookupStatus { Found, NotFound, Failed };

template <class Entry>
struct DatabaseLookup {
    LookupStatus status = LookupStatus::NotFound;
    // The error number of a Failed lookup, else 0.
    int error = 0;
    // Valid when Found; its strings point into `buffer`, which the result keeps alive.
    Entry entry{};
    std::shared_ptr<char> buffer;

    bool found() const { return status == LookupStatus::Found; }
};

// Whether `lookup` found its entry; UMSystemErrorException 12 "<what> :The account database
// could not be read" with the error's text when it failed.  For callers that answer "not found"
// otherwise: a line too long for the largest buffer anywhere before the entry fails every later
// lookup, and must not make an existing account look missing.
template <class Entry>
bool foundOrRaise(const DatabaseLookup<Entry>& lookup, const char* what) {
    if (lookup.status == LookupStatus::Failed)
        raiseErrno<UMSystemErrorException>(lookup.error, UMSystemError::DatabaseLookup, what,
                                           " :The account database could not be read");
    return lookup.found();
}

// One lookup of `key` with the *_r function `read` (getpwnam_r and its siblings).  Throws
// UMSystemErrorException 12 when a buffer cannot be allocated.
template <class Entry, class Key>
DatabaseLookup<Entry> lookUpEntry(int sizeName, int (*read)(Key, Entry*, char*, std::size_t, Entry**), Key key) {
    DatabaseLookup<Entry> lookup;
    const long suggested = sysconf(sizeName);
    std::size_t size = suggested > 0 ? std::min(static_cast<std::size_t>(suggested), kMaxLookupBuffer) : 1024;
    for (;;) {
        lookup.buffer.reset(static_cast<char*>(std::malloc(size)), systemutilities::free_delete());
        if (!lookup.buffer) raise<UMSystemErrorException>(UMSystemError::DatabaseLookup, "getGroupGid malloc error");
        Entry* result = nullptr;
        const int status = read(key, &lookup.entry, lookup.buffer.get(), size, &result);
        if (status == ERANGE && size < kMaxLookupBuffer) {
            size = std::min(size * 2, kMaxLookupBuffer);
            continue;
        }
        // getpwnam_r(3) lists ENOENT, ESRCH, EBADF and EPERM as the "not found" answers of
        // some name services.
        if ((status == 0 && result == nullptr) || status == ENOENT || status == ESRCH || status == EBADF ||
            status == EPERM) {
            lookup.status = LookupStatus::NotFound;
        } else if (status == 0) {
            lookup.status = LookupStatus::Found;
        } else {
            lookup.status = LookupStatus::Failed;
            lookup.error = status;
        }
        return lookup;
    }
}

inline DatabaseLookup<passwd> userByName(const char* name) {
    return lookUpEntry(_SC_GETPW_R_SIZE_MAX, getpwnam_r, name);
}
inline DatabaseLookup<passwd> userById(uid_t uid) { return lookUpEntry(_SC_GETPW_R_SIZE_MAX, getpwuid_r, uid); }
inline DatabaseLookup<group> groupByName(const char* name) {
    return lookUpEntry(_SC_GETGR_R_SIZE_MAX, getgrnam_r, name);
}
inline DatabaseLookup<group> groupById(gid_t gid) { return lookUpEntry(_SC_GETGR_R_SIZE_MAX, getgrgid_r, gid); }
// The shadow entry of `name`: readable as root only; the caller holds the password-file lock.
inline DatabaseLookup<spwd> shadowByName(const char* name) {
    return lookUpEntry(_SC_GETPW_R_SIZE_MAX, getspnam_r, name);
}

// Every group of account `name` with primary group `gid` (`gid` first), as getgrouplist(3) reports
// them: the list starts with room for 64 and grows to the size getgrouplist asks for.  False,
// with errno EINVAL, when getgrouplist fails without asking for more room.  std::bad_alloc when
// the list cannot grow.
inline bool groupListOf(const char* name, gid_t gid, std::vector<gid_t>& groups) {
    for (int room = 64;;) {
        groups.resize(static_cast<std::size_t>(room));
        int count = room;
        if (getgrouplist(name, gid, groups.data(), &count) != -1) {
            groups.resize(static_cast<std::size_t>(count));
            return true;
        }
        // -1 with a larger count: the list needs that much room.
        if (count <= room) {
            errno = EINVAL;
            return false;
        }
        room = count;
    }
}

// The profile group of the account `name` whose passwd entry gives primary group `primary`, as
// an object looks it up (LinuxUserSystem::getUserIds): `primary` when it is a profile group,
// else the first profile group of its group list, else `primary` (LinuxUserSystem.cpp).
unsigned int profileGidOf(const char* name, unsigned int primary);

}  // namespace usermanagement::detail
