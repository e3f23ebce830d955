// The file step of the migration (Migration.h), on its own: what filesSystemMigration does
// between the rights check and the profile step.
#pragma once

#include <map>
#include <string>

namespace usermanagement::detail {

// As root and under the password-file lock, builds the group (and, where the device has one,
// group shadow), passwd and shadow files from the reference copies and the live files, then
// installs the group files, then passwd and shadow together.  The caller has made sure that
// the process's own root runs it (the reference copies rebuild root too).  Returns the
// carried-over accounts' names with their old group id.
std::map<std::string, unsigned int> migrateAccountFiles();

}  // namespace usermanagement::detail
