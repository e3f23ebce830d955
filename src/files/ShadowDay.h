// Today as the shadow file counts days: whole days since the epoch.  One definition for what
// the entry functions write and for what the account state reads, so that a new account's
// object and its stored entry agree on the day.
#pragma once

#include <ctime>

namespace usermanagement::detail {

inline long daysSinceEpoch() { return static_cast<long>(std::time(nullptr) / 86400); }

}  // namespace usermanagement::detail
