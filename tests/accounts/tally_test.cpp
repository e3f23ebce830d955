#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include <usermanagement/Utilities.h>

#include "foundation/Descriptor.h"
#include "support/Sandbox.h"

using usermanagement::utilities::getLockCount;

namespace {

// The scratch files live in the sandbox's throw-away /etc.
using Tally = tvc::test::SandboxTest;

TEST_F(Tally, CountIsReadFromTheRecordOfTheUidInARegularFileOnly) {
    const std::string file = "/etc/tvc-tallylog", fifo = "/etc/tvc-tally.fifo";
    const usermanagement::detail::Descriptor tally(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    unlink(fifo.c_str());
    ASSERT_TRUE(tally && mkfifo(fifo.c_str(), 0600) == 0);
    // Records at their place by uid, the rest a hole as pam_tally2 leaves it.  The neighbouring
    // fields are filled, so that a read at the wrong offset shows.
    for (const auto& [uid, count] :
         {std::pair<std::uint64_t, std::uint16_t>{0, 7}, {10001, 3}, {10002, 65535}, {67108864u, 9}, {67108865u, 5}}) {
        unsigned char record[64];
        std::memset(record, 0xA5, sizeof record);
        std::memcpy(record + 54, &count, sizeof count);
        ASSERT_EQ(pwrite(tally.get(), record, sizeof record, static_cast<off_t>(uid * 64)), 64);
    }
    ASSERT_EQ(ftruncate(tally.get(), 67108865ll * 64 + 60), 0);  // the last count is there, its record is not whole
    const struct {
        std::string path;
        unsigned int uid;
        int count;
    } cases[] = {
        // uid 67108864 is at byte 2^32: a 32-bit offset would wrap to uid 0's record.
        {file, 0, 7},
        {file, 10001, 3},
        {file, 10002, 65535},
        {file, 67108864u, 9},
        {file, 10000, 0},        // a hole inside the file
        {file, 67108865u, 0},    // cut short
        {file, 4294967295u, 0},  // beyond the end
        {"/nonexistent/tallylog", 0, 0},
        {"/dev/urandom", 0, 0},  // a device that does hand out 64 bytes
    };
    for (const auto& c : cases) EXPECT_EQ(getLockCount(c.uid, c.path), c.count) << c.path << " " << c.uid;
    // Without a writer, a blocking open would never return: in a fresh process, SIGALRM ends it.
    EXPECT_EXIT((alarm(3), _exit(getLockCount(0, fifo))), testing::ExitedWithCode(0), "");
}

}  // namespace
