// Reader of the pam_tally2 file: a sparse array of 64-byte records indexed by user id, no
// header.  The library never writes it; unlocking goes through the pam_tally2 tool.
#include <usermanagement/Utilities.h>

#include <cstdint>
#include <cstring>
#include <fstream>

namespace usermanagement::utilities {

namespace {
constexpr std::uint64_t kRecordSize = 64;
constexpr std::size_t kCountOffset = 54;
}  // namespace

int getLockCount(const unsigned int& uid, const std::string& tallyFilePath) {
    std::ifstream tally(tallyFilePath, std::ios::in | std::ios::binary);
    if (!tally) return 0;
    // 64-bit before multiplying: uid * 64 leaves 32 bits from uid 67108864 on.
    const std::uint64_t offset = static_cast<std::uint64_t>(uid) * kRecordSize;
    tally.seekg(static_cast<std::streamoff>(offset), std::ios::beg);
    if (!tally) return 0;
    char record[kRecordSize];
    tally.read(record, sizeof record);
    if (tally.gcount() != static_cast<std::streamsize>(sizeof record)) return 0;
    std::uint16_t count = 0;
    std::memcpy(&count, record + kCountOffset, sizeof count);
    return static_cast<int>(count);
}

}  // namespace usermanagement::utilities
