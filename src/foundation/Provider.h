// The replaceable providers of the library: the configuration (UserDefinition), the profile
// catalogue (ProfileDefinition) and the log sink (Logger).  Each is a pointer that starts at a
// built-in object and that the host may point at its own; the library keeps only the address
// and asks for the provider anew at every use, through installedProvider.
#pragma once

#include <usermanagement/UMException.h>

namespace usermanagement::detail {

// The installed provider.  UMException NothingInstalled when none is: `missing` is both its
// message and its user, since the failure is the host's set-up, not a request's.
template <class Provider>
Provider& installedProvider(Provider* installed, const char* missing) {
    if (installed == nullptr) throw UMException(UMError::NothingInstalled, missing, missing, true);
    return *installed;
}

}  // namespace usermanagement::detail
