#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include <usermanagement/Utilities.h>

#include "system/IdSyscalls.h"

using usermanagement::utilities::getLockCount;

namespace {

// A scratch tally file, removed afterwards.  Records are written at their place by uid, the
// rest of the file stays a hole, as pam_tally2 leaves it.
class TallyFile : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/tvc-tally-XXXXXX";
        m_fd = mkstemp(name);
        ASSERT_NE(m_fd, -1);
        m_path = name;
    }
    void TearDown() override {
        if (m_fd != -1) close(m_fd);
        unlink(m_path.c_str());
    }

    // A record whose neighbouring fields are filled too, so that a read at the wrong offset shows.
    void writeRecord(std::uint64_t uid, std::uint16_t count) {
        unsigned char record[64];
        std::memset(record, 0xA5, sizeof record);
        std::memcpy(record, "ttyS0", 6);
        std::memcpy(record + 54, &count, sizeof count);
        ASSERT_EQ(pwrite(m_fd, record, sizeof record, static_cast<off_t>(uid * 64)), 64);
    }

    int m_fd = -1;
    std::string m_path;
};

TEST_F(TallyFile, RecordsAreFoundByUid) {
    writeRecord(0, 7);
    writeRecord(10001, 3);
    EXPECT_EQ(getLockCount(0, m_path), 7);
    EXPECT_EQ(getLockCount(10001, m_path), 3);
    EXPECT_EQ(getLockCount(10000, m_path), 0);  // a hole inside the file
}

TEST_F(TallyFile, FullCountIsNotNegative) {
    writeRecord(10002, 65535);
    EXPECT_EQ(getLockCount(10002, m_path), 65535);
}

TEST_F(TallyFile, RecordsBeyondTheEndOrCutShortReadAsZero) {
    writeRecord(10001, 4);
    EXPECT_EQ(getLockCount(10002, m_path), 0);
    EXPECT_EQ(getLockCount(4294967295u, m_path), 0);
    ASSERT_EQ(ftruncate(m_fd, 10001 * 64 + 60), 0);  // the count is there, the record is not whole
    EXPECT_EQ(getLockCount(10001, m_path), 0);
    EXPECT_EQ(getLockCount(0, "/nonexistent/tallylog"), 0);
    EXPECT_EQ(getLockCount(0, "/tmp"), 0);  // a directory
}

TEST_F(TallyFile, LargeUidsAreNotWrappedAt32Bits) {
    // 67108864 * 64 is 2^32: a 32-bit offset would wrap to the record of uid 0.
    writeRecord(0, 1);
    writeRecord(4000000, 2);
    writeRecord(67108864u, 9);
    EXPECT_EQ(getLockCount(4000000, m_path), 2);
    EXPECT_EQ(getLockCount(67108864u, m_path), 9);
    EXPECT_EQ(getLockCount(67108865u, m_path), 0);
}

TEST_F(TallyFile, UnreadableFileReadsAsZero) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch a thread to another account";
    writeRecord(10001, 5);
    ASSERT_EQ(fchmod(m_fd, 0600), 0);
    std::thread([this] {
        namespace ids = usermanagement::detail::ids;
        ASSERT_EQ(ids::setResUid(0, 10001, 0), 0);
        EXPECT_EQ(getLockCount(10001, m_path), 0);
        ASSERT_EQ(ids::setResUid(ids::kUnchanged, 0, ids::kUnchanged), 0);
        EXPECT_EQ(getLockCount(10001, m_path), 5);
    }).join();
}

}  // namespace
