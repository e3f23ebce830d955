// The member lists of the group file and of the group shadow file, rewritten for one account
// inside a prepared transaction over that file (one call per transaction, like the entry
// functions of PasswdEntries.h).
//
// A change names the account as the lists hold it now (`from`) and as they are to hold it
// (`to`).  In every list each occurrence of either name goes; then `to` is listed once where
// the rule asks for it, in place of the first `from` when that was listed, at the end
// otherwise.  So a stale entry of the new name, left by another tool, never survives, a name
// is never listed twice and no empty member is written:
//
//     new account     from ""      to name   rule: the groups its profile grants
//     removal         from name    to ""     (nothing is listed)
//     rename          from old     to new    rule: listed before
//     profile change  from name    to name   rule: the catalogue's groups as the new profile
//                                                  grants them, the others as before
//
// Administrator lists of the group shadow file follow `from` only: renamed, dropped on
// removal, never granted (a new account starts without any).
//
// Failures: UMException 7 for a `to` the name rules refuse (checkUserName: among others ','
// the list separator, and blanks, which the C library's reader skips, so " viewer" would be
// read back as "viewer"), before anything is read; UMSystemErrorException 10 as for the entry functions (a line that is no
// valid entry, a read or write failure).
#pragma once

#include <functional>
#include <string>

namespace usermanagement {
class FileSystemUpdate;
}

namespace usermanagement::detail {

// Whether group `group` is to list the account afterwards, given whether it listed `from`.
using MembershipRule = std::function<bool(const std::string& group, bool listed)>;

struct MemberChange {
    std::string from;  // "" for an account that is not stored yet
    std::string to;    // "" for an account that goes
    MembershipRule rule;
};

// The group shadow file that goes with a group file, and its temporary file.  The
// configuration names neither: the file lies beside the group file, as the shadow tools keep
// it, and its temporary file beside the group's temporary file, which the configuration placed
// on that file system (a rename cannot cross file systems).  `present` is false for a device
// that has none (its member lists are in the group file only).
struct GshadowPaths {
    std::string live;
    std::string temporary;
    bool present = false;
};
GshadowPaths gshadowPathsOf(const std::string& groupFile, const std::string& groupTemporary);

void updateMembersInGroupFile(FileSystemUpdate& group, const MemberChange& change);
void updateMembersInGshadowFile(FileSystemUpdate& gshadow, const MemberChange& change);

}  // namespace usermanagement::detail
