// Scopes of a PAM call: effective root for its span, and a borrowed password pointer that is
// null again however the call ends.
#pragma once

#include "system/AsRoot.h"

namespace authnz::detail {

using usermanagement::detail::AsRoot;

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
