// The one place where the library changes user and group ids.
//
// glibc's setresuid/setresgid/setgroups wrappers broadcast the change to every thread of the
// process (POSIX requires process-wide credentials).  A host serving several logged-in users
// needs the opposite: only the calling thread may change identity.  The kernel keeps
// credentials per task, so the bare system calls made here affect the calling thread alone.
//
// On 32-bit ARM (the device) and i386 the plain setresuid/setgroups numbers are the legacy
// calls with 16-bit ids: uid 70000 would silently become 4464.  There the *32 calls must be
// used, and a 32-bit platform that lacks them is refused at compile time rather than risking
// truncated ids.  64-bit platforms only have the plain, 32-bit-id calls.
//
// Header-only on purpose: tests put a thread into a given identity with the very same calls
// the library makes.  Results follow the system call convention: 0 (or a count) on success,
// -1 with errno set on failure.  Nothing here allocates or locks, so every function may run in
// a child between fork and exec.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

static_assert(sizeof(uid_t) == 4 && sizeof(gid_t) == 4, "user and group ids are 32-bit");

#if !defined(SYS_setresuid32) && \
    (defined(__arm__) || defined(__i386__) || (defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ < 8))
#error "32-bit platform without the 32-bit-id system calls: the plain ones may truncate ids to 16 bits"
#endif
#if defined(SYS_setresuid32) && \
    (!defined(SYS_setresgid32) || !defined(SYS_setgroups32) || !defined(SYS_getgroups32))
#error "SYS_setresuid32 exists but not every other 32-bit-id call does"
#endif

namespace usermanagement::detail::ids {

#if defined(SYS_setresuid32)
constexpr long kSysSetResUid = SYS_setresuid32;
constexpr long kSysSetResGid = SYS_setresgid32;
constexpr long kSysSetGroups = SYS_setgroups32;
constexpr long kSysGetGroups = SYS_getgroups32;
#else
constexpr long kSysSetResUid = SYS_setresuid;
constexpr long kSysSetResGid = SYS_setresgid;
constexpr long kSysSetGroups = SYS_setgroups;
constexpr long kSysGetGroups = SYS_getgroups;
#endif

// -1 leaves the corresponding id unchanged.
constexpr uid_t kUnchanged = static_cast<uid_t>(-1);

// The kernel reads each id as a 32-bit value; unsigned long carries it unchanged on every ABI.
inline int setResUid(uid_t real, uid_t effective, uid_t saved) {
    return static_cast<int>(::syscall(kSysSetResUid, static_cast<unsigned long>(real),
                                      static_cast<unsigned long>(effective), static_cast<unsigned long>(saved)));
}

inline int setResGid(gid_t real, gid_t effective, gid_t saved) {
    return static_cast<int>(::syscall(kSysSetResGid, static_cast<unsigned long>(real),
                                      static_cast<unsigned long>(effective), static_cast<unsigned long>(saved)));
}

inline int setGroups(int count, const gid_t* groups) {
    return static_cast<int>(::syscall(kSysSetGroups, static_cast<long>(count), groups));
}

// With count 0: the number of supplementary groups, groups untouched.
inline int getGroups(int count, gid_t* groups) {
    return static_cast<int>(::syscall(kSysGetGroups, static_cast<long>(count), groups));
}

enum class KeepOnly { Done, GidRefused, UidRefused };

// Makes `uid` and `gid` the thread's real, effective and saved ids (group ids first: they
// need the effective root that the user ids give up), then makes sure they hold and that root
// cannot be regained (a thread that kept CAP_SETUID could climb back).  Needs effective root
// on entry unless the ids are already the current ones.
inline KeepOnly keepOnlyIds(uid_t uid, gid_t gid) noexcept {
    if (setResGid(gid, gid, gid) == -1) return KeepOnly::GidRefused;
    if (setResUid(uid, uid, uid) == -1) return KeepOnly::UidRefused;
    gid_t rgid = 0, egid = 0, sgid = 0;
    if (getresgid(&rgid, &egid, &sgid) != 0 || rgid != gid || egid != gid || sgid != gid) return KeepOnly::GidRefused;
    uid_t ruid = 0, euid = 0, suid = 0;
    if (getresuid(&ruid, &euid, &suid) != 0 || ruid != uid || euid != uid || suid != uid) return KeepOnly::UidRefused;
    if (uid != 0 && setResUid(kUnchanged, 0, kUnchanged) == 0) {
        setResUid(uid, uid, uid);
        return KeepOnly::UidRefused;
    }
    return KeepOnly::Done;
}

}  // namespace usermanagement::detail::ids
