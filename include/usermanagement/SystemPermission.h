// Identity switching of the calling thread.
//
// An object records the calling thread's user ids, group ids and supplementary groups when it
// is constructed; operations switch the thread to another identity, and the destructor puts
// the recorded identity back when a switch was made through the object:
//
//     SystemPermission permission;        // snapshot
//     permission.setRealPermissions();    // effective root for the span of the work
//     ...                                 // the destructor restores, exceptions included
//
// Every change is made with the bare Linux system calls, which act on the calling thread
// only: other threads of the host keep their identities.  An object therefore belongs to the
// thread that created it and must be used and destroyed there.
//
// Nothing is switched when UserDefinition::hasRootProfile() answers false; the state of the
// object changes as if it had been.
//
// Failures are usermanagement::PMException with code 15 and the failing step as message.
//
// The data members and their order are part of the binary interface (no virtual operations:
// operations can be added without changing the layout).
#pragma once

#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {

class User;

class TVC_UM_EXPORT SystemPermission {
public:
    // Snapshot of the calling thread's ids.  A failed allocation of the group array leaves
    // m_groups null (with m_nbreGroup still the reported count) and raises nothing.
    SystemPermission();
    // Copies the ids, the state and the group array.  Both objects then restore when they
    // are destroyed in the changed state.  PMException 15 "Memory realloc failed" when the
    // array cannot be copied.
    SystemPermission(SystemPermission& other);
    // Takes over the group array and the duty to restore: the source is left unchanged
    // (its destructor no longer restores), so a moved-from temporary cannot undo the switch
    // early.
    SystemPermission(SystemPermission&& other) noexcept;
    SystemPermission& operator=(const SystemPermission&) = delete;
    SystemPermission& operator=(SystemPermission&&) = delete;
    // restorePermission(), then frees the group array; never throws.  When the snapshot
    // cannot be restored the normal way (root cannot be regained), it restores what an
    // unprivileged thread can: the effective ids when they are still among its real, effective
    // and saved ids.  If the thread still does not have the snapshot's effective user id,
    // effective group id and groups afterwards, the process is aborted with a message on
    // standard error: a host thread must not go on serving with an identity it did not ask for.
    ~SystemPermission();

    unsigned int getEuid() const;
    unsigned int getRuid() const;
    unsigned int getSuid() const;
    unsigned int getEgid() const;
    unsigned int getRgid() const;
    unsigned int getSgid() const;

    // Effective and saved user id 0, real user id unchanged.  PMException 15
    // "setUpPermission" when refused.  Uses no field of the object.
    void setUpPermission();
    // setUpPermission() once and enter the changed state; does nothing in the changed state.
    void setRealPermissions();
    // In the changed state: regain root, then put back the snapshot's supplementary groups,
    // effective group id and effective user id (in that order), with saved ids 0 so that
    // the thread can become root again, and return to the unchanged state.  The real ids are
    // not touched.  When the snapshot counted groups that could not be recorded, the current
    // groups are kept.  Throws PMException 15 "setUpPermission" when root cannot be regained,
    // and PMException 15 "restorePermission" when the thread does not have the snapshot's
    // effective ids afterwards; the object then stays in the changed state.
    void restorePermission();
    // Act as an account: the calling thread takes the account's supplementary groups, its
    // primary group as effective group id and its user id as effective user id (saved ids 0,
    // real ids unchanged), the object enters the changed state, and the thread's log context
    // records the account (umlog::Ctx::getUser()).  restorePermission() or the destructor
    // switches back.  In the changed state the call does nothing.  The new identity is read
    // back before the call returns.  Failures: PMException 16 "setUserPermission no user" for
    // a name without an account; PMException 15 for a refused switch ("setUserPermission
    // sys_setresgid", "... sys_setresuid", "... sys_setgroups") or a group list that cannot be
    // had ("Memory malloc failed", "Memory realloc failed"); whatever building the context's
    // account throws.  The account and its groups are looked up with the thread's identity
    // before any id changes; a failure after the switch began puts the thread back to the
    // snapshot (ids, saved ids included, and groups) before the exception propagates, and the
    // context keeps the account object it held.  After a failure the object stays unchanged.
    // A thread that cannot be put back is handled as by the destructor (restored as far as an
    // unprivileged thread can, or the process aborts).
    // Without a root configuration the account is still looked up and the state changes, but
    // no id does, and the context records the account of the thread's unchanged effective id.
    void setUserPermission(const std::string& userName);
    // The same with the ids and the cached group list of `user` (no lookup).
    void setUserPermission(const User& user);
    // Makes the snapshot's effective user and group ids the thread's real, effective and saved
    // ids, so that it can never become root again (meant for a child process about to run a
    // command).  Groups and the state of the object are unchanged.  PMException 15
    // "setUserPermission sys_setresgid" / "setUserPermission sys_setresuid" when refused, or
    // when the thread could still regain root afterwards.
    void setUserPermissionDefinitely();

    // Writes the snapshot to standard output and appends it to "/tmp/download/sessionP.txt".
    // The file is created (mode 0600) when nothing is at the path.  The trace is lost silently,
    // standard output still written, when the file cannot be opened or is not safe to write
    // with the thread's identity: "/tmp/download" or the file is a symbolic link, the file is
    // not a regular file (a FIFO there does not block), has more than one link or belongs to
    // another user than the effective one.
    void print() const;
    // print() of a fresh snapshot.
    void printCurrentUids();
    // One line "ruid R euid E saveuid S" with the thread's current user ids, to standard output.
    void whoAmi();

private:
    // The ids and the state of `other`, with `groups` as the group array (owned from here on).
    SystemPermission(const SystemPermission& other, unsigned int* groups) noexcept;

    unsigned int m_euid;
    unsigned int m_ruid;
    unsigned int m_saveuid;
    unsigned int m_egid;
    unsigned int m_rgid;
    unsigned int m_savegid;
    // malloc'ed, owned; null when the snapshot had no groups or the array could not be had.
    unsigned int* m_groups;
    int m_nbreGroup;
    // True from a switch made through this object until it restored the snapshot.
    bool m_permissionChanged;
};

}  // namespace usermanagement
