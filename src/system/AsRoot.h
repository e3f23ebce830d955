// Effective root on the calling thread for the span of a scope: the library's own switch for
// its privileged steps (PAM calls, account-file transactions, the commands they run).
#pragma once

#include <usermanagement/SystemPermission.h>

#include "access/Caller.h"

namespace usermanagement::detail {

// Root from construction on; the destructor puts the thread's identity back (PMException 15
// from the constructor when root cannot be had).
//
// The scope is also an operation scope (access/Caller.h), recorded before root is taken: root
// is a means of the library, never the caller.  A rights question asked inside the scope (a
// public member called by a step that runs as root, or by a log sink the step calls) is decided
// on the operation's caller, or, outside any operation, on the identity the thread had before.
class AsRoot {
public:
    AsRoot() { m_permission.setRealPermissions(); }
    AsRoot(const AsRoot&) = delete;
    AsRoot& operator=(const AsRoot&) = delete;

private:
    // Declared first: the caller is recorded before the switch and forgotten after the return.
    CallerScope m_caller;
    SystemPermission m_permission;
};

}  // namespace usermanagement::detail
