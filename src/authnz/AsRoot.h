// Scopes of a PAM call: effective root for its span, the C locale for its span, and a borrowed
// password pointer that is null again however the call ends.
#pragma once

#include <clocale>

#include "system/AsRoot.h"

namespace authnz::detail {

using usermanagement::detail::AsRoot;

// The C locale on the calling thread until the end of the scope, exceptions included; other
// threads keep theirs.  libpam and the modules translate their prompts and refusals under the
// thread's locale, while the conversation answers prompts and the refusals are classified by
// their C-locale texts: a host thread running in another language would get no answer to a
// prompt and no rule named.
class CLocale {
public:
    CLocale() : m_c(newlocale(LC_ALL_MASK, "C", nullptr)), m_previous(m_c != nullptr ? uselocale(m_c) : nullptr) {}
    ~CLocale() {
        if (m_c == nullptr) return;
        uselocale(m_previous);
        freelocale(m_c);
    }
    CLocale(const CLocale&) = delete;
    CLocale& operator=(const CLocale&) = delete;

private:
    locale_t m_c;
    locale_t m_previous;
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
