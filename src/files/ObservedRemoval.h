// The removal entry functions with an observer: `seen` is called with every entry the copy reads
// (the removed ones included), before the entry is kept or dropped.  An operation that must
// check what the files hold of an account (accounts/StoredEntries.h) counts it this way in the
// pass the removal makes anyway, instead of reading each file through once more.  An empty
// `seen` is the public function.
#pragma once

#include <pwd.h>
#include <shadow.h>

#include <functional>
#include <string>

#include <usermanagement/FileSystemUpdate.h>

namespace usermanagement::detail {

void removeEntryInPasswordFile(FileSystemUpdate& transaction, unsigned int uid,
                               const std::function<void(const struct passwd&)>& seen);
void removeEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name,
                             const std::function<void(const struct spwd&)>& seen);

}  // namespace usermanagement::detail
