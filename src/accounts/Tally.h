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

}  // namespace usermanagement::detail
