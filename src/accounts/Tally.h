// The failed-login tally of one account as the tally file records it (Tally.cpp).
#pragma once

#include <cstdint>
#include <string>

namespace usermanagement::detail {

struct TallyEntry {
    int count = 0;                  // failed logins since the last reset
    std::uint64_t lastFailure = 0;  // seconds since the epoch of the last counted failure
};

// The record of `uid`; an empty entry when the file is missing, not a regular file, or ends
// before the record.
TallyEntry tallyEntryOf(unsigned int uid, const std::string& tallyFilePath);

// Whether the file certainly counts no failed login for `uid`: it does not exist, ends before
// the record, or the record's count is 0.  False whenever that cannot be known (a file that
// cannot be opened or read, or is no regular file): the caller then resets as if there were.
bool noFailuresRecorded(unsigned int uid, const std::string& tallyFilePath);

}  // namespace usermanagement::detail
