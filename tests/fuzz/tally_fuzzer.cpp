// The failed-login tally file reader (accounts/Tally.h): any file, any user id.
//
// Input: a mode byte, a 4-byte user id (little-endian), then the file's bytes.  Mode 0 reads
// the user id as given (huge ones far past the end of the file); mode 1 takes it modulo the
// number of records the bytes hold plus two (records inside, the one cut short, the one past
// the end); mode 2 writes the bytes at the user's record, less up to 63 bytes (a sparse file
// whose record lies beyond 4 GiB for user ids from 67108864 on).
// The oracle: tallyEntryOf and getLockCount give what the record at uid * 64 holds, read here
// byte by byte as the file's layout has it (count: 16 bits at 54, time of the last failure:
// 64 bits at 56, in the machine's order, which is little-endian on every target), or an empty
// entry when the file ends before the record's last byte.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <usermanagement/Utilities.h>

#include "accounts/Tally.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the tally records are read little-endian here");

namespace {

std::uint64_t little(const std::uint8_t* bytes, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;) value = value << 8 | bytes[i];
    return value;
}

const std::string& tallyPath() {
    static const std::string path = [] {
        char dir[] = "/tmp/fuzz-tally-XXXXXX";
        if (mkdtemp(dir) == nullptr) std::abort();
        return std::string(dir) + "/tallylog";
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    const std::uint8_t mode = data[0] % 3;
    unsigned int uid = static_cast<unsigned int>(little(data + 1, 4));
    const std::uint8_t* content = data + 5;
    const std::size_t length = size - 5;
    if (mode == 1) uid %= static_cast<unsigned int>(length / 64 + 2);
    const std::uint64_t offset = std::uint64_t{uid} * 64;
    // Where the bytes start in the file: at 0, or just before the user's record.
    const std::uint64_t start = mode == 2 ? offset - std::min<std::uint64_t>(offset, length % 64) : 0;

    const int fd = open(tallyPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    const bool written = pwrite(fd, content, length, static_cast<off_t>(start)) == static_cast<ssize_t>(length);
    close(fd);
    if (!written) return 0;  // a file system without room for such an offset: nothing to read

    usermanagement::detail::TallyEntry expected;
    const std::uint64_t at = offset - start;  // the record's place in `content`
    if (at + 64 <= length) {
        expected.count = static_cast<int>(little(content + at + 54, 2));
        expected.lastFailure = little(content + at + 56, 8);
    }
    const usermanagement::detail::TallyEntry entry = usermanagement::detail::tallyEntryOf(uid, tallyPath());
    const int count = usermanagement::utilities::getLockCount(uid, tallyPath());
    if (entry.count != expected.count || entry.lastFailure != expected.lastFailure || count != expected.count) {
        std::fprintf(stderr, "uid %u: read %d/%llu (lock count %d), the record holds %d/%llu\n", uid, entry.count,
                     static_cast<unsigned long long>(entry.lastFailure), count, expected.count,
                     static_cast<unsigned long long>(expected.lastFailure));
        std::abort();  // the reader reads another record or other bytes than the layout's
    }
    return 0;
}
