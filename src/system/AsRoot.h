// Effective root on the calling thread for the span of a scope: the library's own switch for
// its privileged steps (PAM calls, account-file transactions, the commands they run).
#pragma once

#include <usermanagement/SystemPermission.h>

namespace usermanagement::detail {

// Root from construction on; the destructor puts the thread's identity back (PMException 15
// from the constructor when root cannot be had).
class AsRoot {
public:
    AsRoot() { m_permission.setRealPermissions(); }
    AsRoot(const AsRoot&) = delete;
    AsRoot& operator=(const AsRoot&) = delete;

private:
    SystemPermission m_permission;
};

}  // namespace usermanagement::detail
