// The state flags of an account (User::isActive and the others) as its stored entries give
// them: one rule for the object that reads them back (User::updateState) and for the one that
// has just written them (User::createUser), so that both answer alike.
#pragma once

#include <shadow.h>

#include "files/ShadowDay.h"

namespace usermanagement::detail {

// What a shadow entry says on day `today` (days since the epoch).
struct ShadowState {
    bool active = false;           // the hash field is present and does not start with "!!"
    bool passwordExpired = false;  // changed on day 0, or older than its maximum age
    bool accountExpired = false;   // the expiration day has passed
    bool inactive = false;         // the inactivity period after the maximum age has run out
};
ShadowState shadowStateOf(const spwd& entry, long today);

// The configured failed-login limit (getDBLockCount), -1 for none; -1 too when the
// configuration cannot be asked (no configuration: nothing is locked).
int failedLoginLimit();

// Whether `count` failed logins lock an account under `limit`.
inline bool lockedByFailures(int count, int limit) { return limit != -1 && limit <= count; }

}  // namespace usermanagement::detail
