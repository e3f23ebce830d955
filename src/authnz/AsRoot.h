// Scopes of a PAM call: effective root for its span, and a borrowed password pointer that is
// null again however the call ends.
#pragma once

#include <usermanagement/SystemPermission.h>

namespace authnz::detail {

// Effective root on the calling thread from construction on; the destructor puts the thread's
// identity back (PMException 15 from the constructor when root cannot be had).
class AsRoot {
public:
    AsRoot() { m_permission.setRealPermissions(); }
    AsRoot(const AsRoot&) = delete;
    AsRoot& operator=(const AsRoot&) = delete;

private:
    usermanagement::SystemPermission m_permission;
};

// `field` points at `value` until end() or the end of the scope.
class Borrowed {
public:
    Borrowed(const char*& field, const char* value) : m_field(field) { m_field = value; }
    ~Borrowed() { end(); }
    Borrowed(const Borrowed&) = delete;
    Borrowed& operator=(const Borrowed&) = delete;
    void end() { m_field = nullptr; }

private:
    const char*& m_field;
};

}  // namespace authnz::detail
