// Reading the failed-login count, and operations whose count reset did not happen.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <usermanagement/ErrorCodes.h>
#include <usermanagement/Utilities.h>

#include "foundation/Descriptor.h"
#include "support/AccountSupport.h"

using usermanagement::utilities::getLockCount;

namespace {

// The scratch files live in the sandbox's throw-away /etc.
using Tally = tvc::test::SandboxTest;
using TallyResetTest = tvc::test::AccountsTest;

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

// guest's record with `count` failed logins, as the sample's tally module writes it.
void setCount(std::uint16_t count, std::uint64_t lastFailure = 0) {
    const usermanagement::detail::Descriptor tally(open("/var/log/tallylog", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    unsigned char record[64] = {};
    std::memcpy(record + 54, &count, sizeof count);
    std::memcpy(record + 56, &lastFailure, sizeof lastFailure);
    ASSERT_EQ(pwrite(tally.get(), record, sizeof record, 10004 * 64), 64);
}

// A tally tool that fails, or succeeds without resetting the count, fails the operation that
// needed the reset: nothing is written and no "unlocked" event claims what did not happen.
TEST_F(TallyResetTest, AResetThatDidNotHappenFailsTheOperationAndLogsNoUnlock) {
    const std::string tool = "/etc/tvc-pam/bin/pam_tally2", real = tool + ".real";
    ASSERT_EQ(rename(tool.c_str(), real.c_str()), 0);
    struct PutBack {
        std::string tool, real;
        ~PutBack() { rename(real.c_str(), tool.c_str()); }
    } putBack{tool, real};
    const struct {
        const char* body;
        const char* reason;
    } tools[] = {
        {"exit 1", "the command exited with 1 (uid 10004)"},
        {"exit 0", "the count is not 0 after the command (uid 10004)"},
    };
    const bool yes = true;
    usermanagement::User guest("guest");
    const std::function<void()> operations[] = {
        [&] { guest.unLock(); },
        [&] { guest.updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr); },
        [&] { guest.updateAnyUserPassword("guest", "Reset#Guest2026", false, "", false); },
    };
    for (const auto& t : tools) {
        tvc::test::writeFile(tool, std::string("#!/bin/sh\n") + t.body + "\n");
        ASSERT_EQ(chmod(tool.c_str(), 0755), 0);
        for (const auto& operation : operations) {
            SCOPED_TRACE(t.body);
            setCount(3);
            const std::string passwd = tvc::test::readFile("/etc/passwd"), shadow = tvc::test::readFile("/etc/shadow");
            try {
                operation();
                ADD_FAILURE() << "no error";
            } catch (tarvicexception::TvcException& e) {
                EXPECT_EQ(e.getErrorId(), usermanagement::UMSystemError::TallyReset);
                EXPECT_EQ(std::string(e.getErrorDescription()), t.reason);
            }
            EXPECT_EQ(getLockCount(10004, "/var/log/tallylog"), 3);
            EXPECT_EQ(tvc::test::readFile("/etc/passwd"), passwd);
            EXPECT_EQ(tvc::test::readFile("/etc/shadow"), shadow);
            EXPECT_EQ(takeEvents(), "");
        }
    }
    // A failure counted after the reset started is a new one, not a reset that failed: a login
    // tried meanwhile must not make a manager's operation fail.
    setCount(3, static_cast<std::uint64_t>(time(nullptr)) + 1);
    EXPECT_EQ(tvc::test::outcome([&] { guest.unLock(); }), "ok");
}

}  // namespace
