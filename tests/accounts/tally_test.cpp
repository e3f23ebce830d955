#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <string>

#include <usermanagement/Utilities.h>

#include "foundation/Descriptor.h"
#include "support/Sandbox.h"

using usermanagement::detail::Descriptor;
using usermanagement::utilities::getLockCount;

namespace {

// getLockCount, or -1 when it is still blocked after a few seconds; a writer then releases it,
// so that a hanging open fails the test instead of stalling the suite.
int lockCount(unsigned int uid, const std::string& path) {
    auto count = std::async(std::launch::async, [=] { return getLockCount(uid, path); });
    if (count.wait_for(std::chrono::seconds(3)) == std::future_status::ready) return count.get();
    const Descriptor writer(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    count.wait();
    return -1;
}

// The scratch files live in the sandbox's throw-away /etc.
using Tally = tvc::test::SandboxTest;

TEST_F(Tally, CountIsReadFromTheRecordOfTheUidInARegularFileOnly) {
    const std::string file = "/etc/tvc-tallylog", fifo = "/etc/tvc-tally.fifo";
    const Descriptor tally(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ASSERT_TRUE(tally);
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Records at their place by uid, the rest a hole as pam_tally2 leaves it.  The neighbouring
    // fields are filled, so that a read at the wrong offset shows.
    auto writeRecord = [&tally](std::uint64_t uid, std::uint16_t count) {
        unsigned char record[64];
        std::memset(record, 0xA5, sizeof record);
        std::memcpy(record + 54, &count, sizeof count);
        return pwrite(tally.get(), record, sizeof record, static_cast<off_t>(uid * 64)) == 64;
    };
    // uid 67108864 is at byte 2^32: a 32-bit offset would wrap to uid 0's record.
    ASSERT_TRUE(writeRecord(0, 7) && writeRecord(10001, 3) && writeRecord(10002, 65535) && writeRecord(67108864u, 9));
    const struct {
        std::string path;
        unsigned int uid;
        int count;
    } cases[] = {
        {file, 0, 7}, {file, 10001, 3}, {file, 10002, 65535}, {file, 67108864u, 9},
        {file, 10000, 0},                              // a hole inside the file
        {file, 67108865u, 0}, {file, 4294967295u, 0},  // beyond the end
        {"/nonexistent/tallylog", 0, 0},
        {"/etc", 0, 0},          // a directory
        {fifo, 0, 0},            // without a writer, a blocking open would never return
        {"/dev/urandom", 0, 0},  // a device that does hand out 64 bytes
    };
    for (const auto& c : cases) EXPECT_EQ(lockCount(c.uid, c.path), c.count) << c.path << " " << c.uid;

    ASSERT_EQ(ftruncate(tally.get(), 10002 * 64 + 60), 0);  // the count is there, the record is not whole
    EXPECT_EQ(getLockCount(10002, file), 0);
}

}  // namespace
