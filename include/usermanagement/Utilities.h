// Free functions over the account database in the namespace usermanagement::utilities.
#pragma once

#include <string>
#include <vector>

#include <usermanagement/Export.h>
#include <usermanagement/User.h>

namespace usermanagement::utilities {

// Failed-login count of `uid` in the pam_tally2 file `tallyFilePath`: the unsigned 16-bit
// count (host byte order) at offset 54 of the 64-byte record at byte uid * 64.  One record is
// read, with the calling thread's identity; 0 when the file cannot be opened, is no regular
// file (a FIFO there does not block the caller) or the record lies beyond its end.  Raises
// nothing.
TVC_UM_EXPORT int getLockCount(const unsigned int& uid, const std::string& tallyFilePath);

// The managed accounts (user ids in [getBaseUid(), getBaseUid() + getMaxUser())) in the order of
// the password file (getPasswordFilePath()), each built from its entry with its profile, the
// ReadUser rights check for each, and the lookup's state flags: call updateState() for the real
// ones.  The file is read in one pass on a stream of the call's own, so the list is one state of
// the file even while other threads change accounts, and the process's getpwent stream is left
// alone.  UMSystemErrorException 12 when the file cannot be read; passes the rights check's
// exceptions on.
TVC_UM_EXPORT std::vector<User> getUserList();

}  // namespace usermanagement::utilities
