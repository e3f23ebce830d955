// Reader of the pam_tally2 file: a sparse array of 64-byte records indexed by user id, no
// header.  The library never writes it; unlocking goes through the pam_tally2 tool.  Writers
// lock a record (fcntl, open file description locks) for each change; the sample device's
// tally module keeps that lock from counting a login attempt until its password is checked.
#include <usermanagement/Utilities.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "accounts/Tally.h"
#include "foundation/Descriptor.h"

namespace usermanagement {

namespace {
constexpr std::uint64_t kRecordSize = 64;
constexpr std::size_t kCountOffset = 54;
constexpr std::size_t kTimeOffset = 56;
}  // namespace

detail::TallyEntry detail::tallyEntryOf(unsigned int uid, const std::string& tallyFilePath) {
    // Non-blocking: a FIFO planted at the path must not hold the caller in open(); only a
    // regular file is read (a FIFO, a device or a directory reads as "no failures").
    const detail::Descriptor tally(open(tallyFilePath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!tally || fstat(tally.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    // 64-bit before multiplying: uid * 64 leaves 32 bits from uid 67108864 on.
    const std::uint64_t offset = static_cast<std::uint64_t>(uid) * kRecordSize;
    // Read under a read lock on the record: a login in flight has counted itself as a failure
    // and takes that back if its password is right, so a count read meanwhile could show an
    // account locked that is not.  The wait lasts one password check.  A file system without
    // locks is read as it is.
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(offset);
    lock.l_len = static_cast<off_t>(kRecordSize);
    while (fcntl(tally.get(), F_OFD_SETLKW, &lock) != 0 && errno == EINTR) {
    }
    char record[kRecordSize];
    if (pread(tally.get(), record, sizeof record, static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof record))
        return {};
    std::uint16_t count = 0;
    TallyEntry entry;
    std::memcpy(&count, record + kCountOffset, sizeof count);
    std::memcpy(&entry.lastFailure, record + kTimeOffset, sizeof entry.lastFailure);
    entry.count = static_cast<int>(count);
    return entry;
}

int utilities::getLockCount(const unsigned int& uid, const std::string& tallyFilePath) {
    return detail::tallyEntryOf(uid, tallyFilePath).count;
}

}  // namespace usermanagement
