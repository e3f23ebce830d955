// Identity switching of the calling thread through the bare system calls of IdSyscalls.h.
//
// Each switch follows the discipline of OpenSSH's uidswap: groups before group ids before
// user ids (giving up effective root first would forbid the rest), and an identity change
// that matters is checked after it was made instead of trusting the return codes.
#include <usermanagement/SystemPermission.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <systemutilities/LinuxUserSystem.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "access/DatabaseLookup.h"
#include "foundation/Descriptor.h"
#include "foundation/Raise.h"
#include "system/ActAs.h"
#include "system/IdSyscalls.h"

namespace usermanagement {

namespace {

namespace ids = detail::ids;
using detail::raise;

constexpr unsigned int kUnknownId = 4294967295u;
constexpr const char* kTraceDirectory = "/tmp/download";
constexpr const char* kTraceName = "sessionP.txt";

bool rootProfile() { return UserDefinition::GetUserDefinition().hasRootProfile(); }

// A failed identity step: the message is the fixed text hosts know; the description says why
// (the errno of the refused call, kNoReadBack when the call passed but the ids did not read
// back) and which ids were asked for against those the thread has now, so that a failure in
// the field can be told from the log alone.
constexpr int kNoReadBack = 0;
[[noreturn]] void switchFailed(int code, const char* message, int error, unsigned int uid, unsigned int gid,
                               const char* reasonText = nullptr) {
    uid_t ruid = kUnknownId, euid = kUnknownId, suid = kUnknownId;
    gid_t rgid = kUnknownId, egid = kUnknownId, sgid = kUnknownId;
    (void)getresuid(&ruid, &euid, &suid);
    (void)getresgid(&rgid, &egid, &sgid);
    const std::string reason = reasonText != nullptr ? std::string(reasonText)
                               : error != 0     ? std::string(std::strerror(error))
                                                : std::string("the ids did not read back");
    throw PMException(code, message,
                      detail::concat(reason, " (wanted uid ", uid, " gid ", gid, "; thread has uid ", ruid, "/", euid,
                                     "/", suid, " gid ", rgid, "/", egid, "/", sgid, ")"),
                      umlog::Ctx::getCtx().getUsername(), true);
}

// A malloc'ed copy of a snapshot's group array (null for none); PMException when it cannot be had.
unsigned int* copyOfGroups(const unsigned int* groups, int count) {
    if (groups == nullptr || count <= 0) return nullptr;
    const size_t bytes = sizeof(unsigned int) * static_cast<size_t>(count);
    auto* copy = static_cast<unsigned int*>(std::malloc(bytes));
    if (copy == nullptr) raise<PMException>(PMError::UpdatePrivilegeFailed, "Memory realloc failed");
    return static_cast<unsigned int*>(std::memcpy(copy, groups, bytes));
}

// Whether the snapshot's groups can be put back: an array, or a snapshot without groups.
// A count without an array (allocation failed at construction) cannot.
bool groupsKnown(const unsigned int* groups, int count) { return groups != nullptr || count == 0; }

bool hasEffectiveIds(uid_t euid, gid_t egid) {
    uid_t ruid = 0, currentEuid = 0, suid = 0;
    gid_t rgid = 0, currentEgid = 0, sgid = 0;
    if (getresuid(&ruid, &currentEuid, &suid) != 0 || getresgid(&rgid, &currentEgid, &sgid) != 0) return false;
    return currentEuid == euid && currentEgid == egid;
}

// The thread's groups equal `groups` as a set (the kernel keeps them sorted).
bool hasGroups(const unsigned int* groups, int count) {
    int current = ids::getGroups(0, nullptr);
    if (current != count) return false;
    if (count == 0) return true;
    std::vector<gid_t> now(static_cast<size_t>(count));
    if (ids::getGroups(count, now.data()) != count) return false;
    std::vector<gid_t> wanted(groups, groups + count);
    std::sort(now.begin(), now.end());
    std::sort(wanted.begin(), wanted.end());
    return now == wanted;
}

// Last resort of the destructor when restorePermission() failed (root could not be regained,
// the configuration could not be asked, or the ids did not stick).  Everything is attempted
// without the configuration: the object did switch, so its snapshot is the identity the thread
// must get back.  Without root the kernel still lets a thread pick its effective ids among its
// real, effective and saved ids, which restores the common case of a thread whose saved id
// was lost.  A thread that still has another identity is not allowed to go on: it would serve
// later requests of the host as the wrong account.
void restoreOrAbort(uid_t euid, gid_t egid, const unsigned int* groups, int count) noexcept {
    ids::setResUid(ids::kUnchanged, 0, 0);
    if (groupsKnown(groups, count)) ids::setGroups(count, groups);
    if (ids::setResGid(ids::kUnchanged, egid, 0) != 0) ids::setResGid(ids::kUnchanged, egid, ids::kUnchanged);
    if (ids::setResUid(ids::kUnchanged, euid, 0) != 0) ids::setResUid(ids::kUnchanged, euid, ids::kUnchanged);

    bool restored = hasEffectiveIds(euid, egid) && (!groupsKnown(groups, count) || hasGroups(groups, count));
    if (restored) return;

    char message[200];
    int length = std::snprintf(message, sizeof message,
                               "tvc_usermanagement: thread %ld cannot return to euid %u egid %u; aborting\n",
                               static_cast<long>(::syscall(SYS_gettid)), euid, egid);
    if (length > 0) {
        ssize_t ignored = ::write(STDERR_FILENO, message, std::min(static_cast<size_t>(length), sizeof message - 1));
        (void)ignored;
    }
    std::abort();
}

using detail::Snapshot;

// The calling thread has every id of `snapshot`, and its groups when they were recorded.
bool hasSnapshot(const Snapshot& snapshot) {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    if (getresuid(&ruid, &euid, &suid) != 0 || getresgid(&rgid, &egid, &sgid) != 0) return false;
    return ruid == snapshot.ruid && euid == snapshot.euid && suid == snapshot.suid && rgid == snapshot.rgid &&
           egid == snapshot.egid && sgid == snapshot.sgid &&
           (!groupsKnown(snapshot.groups, snapshot.count) || hasGroups(snapshot.groups, snapshot.count));
}

// Puts the calling thread back to `snapshot` after an act-as that failed part-way: from root
// again, groups before group ids before user ids, the saved ids included (they may have been
// other than 0).  The real ids are never changed by an act-as and are left alone.  A thread
// that still is not the snapshot afterwards gets the destructor's last resort: it either has
// the snapshot's effective identity or the process ends.
void rollBack(const Snapshot& snapshot) noexcept {
    if (hasSnapshot(snapshot)) return;
    ids::setResUid(ids::kUnchanged, 0, ids::kUnchanged);
    if (groupsKnown(snapshot.groups, snapshot.count)) ids::setGroups(snapshot.count, snapshot.groups);
    ids::setResGid(ids::kUnchanged, snapshot.egid, snapshot.sgid);
    ids::setResUid(ids::kUnchanged, snapshot.euid, snapshot.suid);
    if (!hasSnapshot(snapshot)) restoreOrAbort(snapshot.euid, snapshot.egid, snapshot.groups, snapshot.count);
}

// Puts the calling thread (effective root) into an account's identity: groups, then effective
// group id, then effective user id, saved ids 0 so that the library can regain root for its own
// operations.  The identity is read back afterwards: a thread that kept root's supplementary
// groups (group 0, shadow...) while acting as an account would keep their rights, so a list
// that did not stick is a failure like a refused id.
void actAs(uid_t uid, gid_t gid, const gid_t* groups, int count) {
    if (!rootProfile()) return;
    constexpr int kFailed = PMError::UpdatePrivilegeFailed;
    const int groupsError = ids::setGroups(count, groups) == -1 ? errno : 0;
    if (ids::setResGid(ids::kUnchanged, gid, 0) == -1)
        switchFailed(kFailed, "setUserPermission sys_setresgid", errno, uid, gid);
    if (ids::setResUid(ids::kUnchanged, uid, 0) == -1)
        switchFailed(kFailed, "setUserPermission sys_setresuid", errno, uid, gid);
    if (!hasGroups(groups, count)) switchFailed(kFailed, "setUserPermission sys_setgroups", groupsError, uid, gid);
    if (!hasEffectiveIds(uid, gid)) switchFailed(kFailed, "setUserPermission sys_setresuid", kNoReadBack, uid, gid);
}

// The trace file, ready for appending, or nothing.  print() runs as root in a directory anyone
// may be able to write to, so whatever is found at the path must not become a way to make root
// write elsewhere: links are not followed (neither the directory nor the file), the file is
// created only where nothing exists (O_EXCL), a FIFO or device neither blocks the open nor is
// written, and a file with a second name (a hard link to a file elsewhere) or another owner is
// left alone.
detail::Descriptor openTrace() {
    const detail::Descriptor directory(open(kTraceDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) return {};
    constexpr int kAppend = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    detail::Descriptor trace(openat(directory.get(), kTraceName, kAppend));
    if (!trace && errno == ENOENT) trace.reset(openat(directory.get(), kTraceName, kAppend | O_CREAT | O_EXCL, 0600));
    struct stat status {};
    if (!trace || fstat(trace.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        status.st_uid != geteuid())
        return {};
    return trace;
}

// Effective and saved user id 0: see setUpPermission.
void regainRoot() {
    if (!rootProfile()) return;
    if (ids::setResUid(ids::kUnchanged, 0, 0) == -1)
        switchFailed(PMError::UpdatePrivilegeFailed, "setUpPermission", errno, 0, getegid());
}

}  // namespace

// Safety: a failure half-way must not leave the thread with an identity it did not have, least
// of all root or the half-taken account.  So whatever was done is undone before the exception
// goes on to the caller, and the caller's object stays unchanged.
void detail::actAsOrRollBack(const Snapshot& recorded, uid_t uid, gid_t gid, const gid_t* groups, int count,
                             const std::function<void()>& record) {
    try {
        regainRoot();
        actAs(uid, gid, groups, count);
        record();
    } catch (...) {
        rollBack(recorded);
        throw;
    }
}

SystemPermission::SystemPermission()
    : m_euid(kUnknownId),
      m_ruid(kUnknownId),
      m_saveuid(kUnknownId),
      m_egid(kUnknownId),
      m_rgid(kUnknownId),
      m_savegid(kUnknownId),
      m_groups(nullptr),
      m_nbreGroup(0),
      m_permissionChanged(false) {
    m_nbreGroup = ids::getGroups(0, nullptr);
    if (m_nbreGroup > 0) {
        m_groups = static_cast<unsigned int*>(std::malloc(sizeof(unsigned int) * static_cast<size_t>(m_nbreGroup)));
        // A partial list would restore the wrong groups; no list keeps the thread's current ones.
        if (m_groups != nullptr && ids::getGroups(m_nbreGroup, m_groups) != m_nbreGroup) {
            std::free(m_groups);
            m_groups = nullptr;
        }
    }
    getresgid(&m_rgid, &m_egid, &m_savegid);
    getresuid(&m_ruid, &m_euid, &m_saveuid);
}

SystemPermission::SystemPermission(const SystemPermission& other, unsigned int* groups) noexcept
    : m_euid(other.m_euid),
      m_ruid(other.m_ruid),
      m_saveuid(other.m_saveuid),
      m_egid(other.m_egid),
      m_rgid(other.m_rgid),
      m_savegid(other.m_savegid),
      m_groups(groups),
      m_nbreGroup(other.m_nbreGroup),
      m_permissionChanged(other.m_permissionChanged) {}

SystemPermission::SystemPermission(SystemPermission& other)
    : SystemPermission(other, copyOfGroups(other.m_groups, other.m_nbreGroup)) {}

SystemPermission::SystemPermission(SystemPermission&& other) noexcept
    : SystemPermission(other, std::exchange(other.m_groups, nullptr)) {
    other.m_permissionChanged = false;
}

SystemPermission::~SystemPermission() {
    try {
        restorePermission();
    } catch (...) {
        restoreOrAbort(m_euid, m_egid, m_groups, m_nbreGroup);
    }
    std::free(m_groups);
}

unsigned int SystemPermission::getEuid() const { return m_euid; }
unsigned int SystemPermission::getRuid() const { return m_ruid; }
unsigned int SystemPermission::getSuid() const { return m_saveuid; }
unsigned int SystemPermission::getEgid() const { return m_egid; }
unsigned int SystemPermission::getRgid() const { return m_rgid; }
unsigned int SystemPermission::getSgid() const { return m_savegid; }

void SystemPermission::setUpPermission() { regainRoot(); }

void SystemPermission::setRealPermissions() {
    if (m_permissionChanged) return;
    setUpPermission();
    m_permissionChanged = true;
}

void SystemPermission::restorePermission() {
    if (!m_permissionChanged) return;
    setUpPermission();
    if (rootProfile()) {
        // Results deliberately unchecked one by one: what counts is the identity afterwards.
        if (groupsKnown(m_groups, m_nbreGroup)) ids::setGroups(m_nbreGroup, m_groups);
        ids::setResGid(ids::kUnchanged, m_egid, 0);
        ids::setResUid(ids::kUnchanged, m_euid, 0);
        if (!hasEffectiveIds(m_euid, m_egid))
            switchFailed(PMError::UpdatePrivilegeFailed, "restorePermission", kNoReadBack, m_euid, m_egid);
    }
    m_permissionChanged = false;
}

// Both forms look everything up before the first id changes, so that an account that is not
// there or a group list that cannot be had is refused with the thread untouched.  What can
// only fail after the switch began is undone by actAsOrRollBack.  The state changes last: a
// failed call leaves the object unchanged, with nothing for the destructor to restore.
void SystemPermission::setUserPermission(const std::string& userName) {
    if (m_permissionChanged) return;
    unsigned int uid = kUnknownId, gid = kUnknownId;
    if (!systemutilities::LinuxUserSystem::getUserIds(userName.c_str(), &uid, &gid))
        switchFailed(PMError::UpdateUserFailed, "setUserPermission no user", 0, uid, gid,
                     "no account of that name in the account database");
    std::vector<gid_t> groups;
    try {
        // A list that cannot be had is refused rather than switching with the caller's groups.
        if (!detail::groupListOf(userName.c_str(), gid, groups))
            switchFailed(PMError::UpdatePrivilegeFailed, "setUserPermission sys_setgroups", errno, uid, gid);
    } catch (const std::bad_alloc&) {
        raise<PMException>(PMError::UpdatePrivilegeFailed, "Memory realloc failed");
    }
    detail::actAsOrRollBack(Snapshot{m_ruid, m_euid, m_saveuid, m_rgid, m_egid, m_savegid, m_groups, m_nbreGroup},
                            uid, gid, groups.data(), static_cast<int>(groups.size()),
                            [] { umlog::Ctx::getCtx().setUser(); });
    m_permissionChanged = true;
}

// setUserPermission(const User&) is with the account type, in src/accounts/ActAsAccount.cpp.

void SystemPermission::setUserPermissionDefinitely() {
    setUpPermission();
    if (!rootProfile()) return;
    switch (ids::keepOnlyIds(m_euid, m_egid)) {
        case ids::KeepOnly::Done:
            return;
        case ids::KeepOnly::GidRefused:
            switchFailed(PMError::UpdatePrivilegeFailed, "setUserPermission sys_setresgid", errno, m_euid, m_egid);
        case ids::KeepOnly::UidRefused:
            switchFailed(PMError::UpdatePrivilegeFailed, "setUserPermission sys_setresuid", errno, m_euid, m_egid);
    }
}

void SystemPermission::print() const {
    std::ostringstream trace;
    auto line = [&trace](const std::string& label, auto value) {
        std::cout << label << value << '\n';
        trace << label << value << '\n';
    };
    line("m_euid ", m_euid);
    line("m_ruid ", m_ruid);
    line("m_saveuid ", m_saveuid);
    line("m_egid ", m_egid);
    line("m_rgid ", m_rgid);
    line("m_savegid ", m_savegid);
    line("m_nbreGroup ", m_nbreGroup);
    // A count without an array (allocation failed) has no ids to show.
    if (m_groups != nullptr)
        for (int i = 0; i < m_nbreGroup; ++i) line("grp:", m_groups[i]);
    std::cout << '\n' << std::flush;
    const detail::Descriptor file = openTrace();
    // Best effort: a trace that cannot be written is lost.
    const std::string text = trace.str();
    if (file) (void)detail::writeAll(file.get(), text.data(), text.size());
}

void SystemPermission::printCurrentUids() {
    SystemPermission current;
    current.print();
}

void SystemPermission::whoAmi() {
    uid_t ruid = kUnknownId, euid = kUnknownId, suid = kUnknownId;
    getresuid(&ruid, &euid, &suid);
    std::cout << "ruid " << ruid << " euid " << euid << " saveuid " << suid << '\n' << std::flush;
}

}  // namespace usermanagement
