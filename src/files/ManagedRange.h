// The managed uid range: the accounts the library creates and changes for its callers, user ids
// in [getBaseUid(), getBaseUid() + getMaxUser()).  Everything outside it belongs to the system.
#pragma once

#include <usermanagement/UserDefinition.h>

namespace usermanagement::detail {

inline bool isManagedUid(unsigned int uid, UserDefinition& definition) {
    // uid - base wraps for ids below the base, so one unsigned comparison covers both ends.
    return uid - definition.getBaseUid() < definition.getMaxUser();
}

}  // namespace usermanagement::detail
