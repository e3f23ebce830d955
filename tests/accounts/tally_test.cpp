#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <usermanagement/Utilities.h>

using usermanagement::utilities::getLockCount;

namespace {

struct ScratchFile {
    char path[32] = "/tmp/tvc-tally-XXXXXX";
    int fd = mkstemp(path);
    ~ScratchFile() {
        close(fd);
        unlink(path);
    }
};

TEST(Tally, CountIsReadFromTheRecordOfTheUid) {
    ScratchFile tally;
    ASSERT_NE(tally.fd, -1);
    // Records at their place by uid, the rest a hole as pam_tally2 leaves it.  The neighbouring
    // fields are filled, so that a read at the wrong offset shows.
    auto writeRecord = [&tally](std::uint64_t uid, std::uint16_t count) {
        unsigned char record[64];
        std::memset(record, 0xA5, sizeof record);
        std::memcpy(record + 54, &count, sizeof count);
        return pwrite(tally.fd, record, sizeof record, static_cast<off_t>(uid * 64)) == 64;
    };
    // uid 67108864 is at byte 2^32: a 32-bit offset would wrap to uid 0's record.
    ASSERT_TRUE(writeRecord(0, 7) && writeRecord(10001, 3) && writeRecord(10002, 65535) && writeRecord(67108864u, 9));
    const struct {
        unsigned int uid;
        int count;
    } cases[] = {
        {0, 7}, {10001, 3}, {10002, 65535}, {67108864u, 9},
        {10000, 0},                        // a hole inside the file
        {67108865u, 0}, {4294967295u, 0},  // beyond the end
    };
    for (const auto& c : cases) EXPECT_EQ(getLockCount(c.uid, tally.path), c.count) << c.uid;

    ASSERT_EQ(ftruncate(tally.fd, 10002 * 64 + 60), 0);  // the count is there, the record is not whole
    EXPECT_EQ(getLockCount(10002, tally.path), 0);
    EXPECT_EQ(getLockCount(0, "/nonexistent/tallylog"), 0);
    EXPECT_EQ(getLockCount(0, "/tmp"), 0);  // a directory
}

}  // namespace
