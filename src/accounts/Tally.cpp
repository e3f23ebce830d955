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

namespace {

enum class Record { Read, Absent, Unknown };

// The record of `uid` into `entry`.  Absent: the file does not exist or ends before the
// record, so nothing is counted for `uid`.  Unknown: the file exists but could not be read as
// a tally (no permission, a read error, a FIFO, a device or a directory).
Record readRecord(unsigned int uid, const std::string& tallyFilePath, detail::TallyEntry& entry) {
    // Non-blocking: a FIFO planted at the path must not hold the caller in open(); only a
    // regular file is read.
    const detail::Descriptor tally(open(tallyFilePath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!tally) return errno == ENOENT ? Record::Absent : Record::Unknown;
    struct stat status {};
    if (fstat(tally.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Record::Unknown;
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
    const ssize_t got = pread(tally.get(), record, sizeof record, static_cast<off_t>(offset));
    if (got < 0) return Record::Unknown;
    // A sparse file reads zeros where no record was written; a file that ends inside the
    // record was cut short, and is not trusted to say "no failures".
    if (got == 0 && static_cast<std::uint64_t>(status.st_size) <= offset) return Record::Absent;
    if (got != static_cast<ssize_t>(sizeof record)) return Record::Unknown;
    std::uint16_t count = 0;
    std::memcpy(&count, record + kCountOffset, sizeof count);
    std::memcpy(&entry.lastFailure, record + kTimeOffset, sizeof entry.lastFailure);
    entry.count = static_cast<int>(count);
    return Record::Read;
}

}  // namespace

detail::TallyEntry detail::tallyEntryOf(unsigned int uid, const std::string& tallyFilePath) {
    TallyEntry entry;
    // What cannot be read counts as no failures here; noFailuresRecorded tells the two apart.
    return readRecord(uid, tallyFilePath, entry) == Record::Read ? entry : TallyEntry{};
}

bool detail::noFailuresRecorded(unsigned int uid, const std::string& tallyFilePath) {
    TallyEntry entry;
    switch (readRecord(uid, tallyFilePath, entry)) {
        case Record::Absent:
            return entry.count == 0;
        case Record::Read:
            return entry.count == 0;
        case Record::Unknown:
            break;
    }
    return false;
}

int utilities::getLockCount(const unsigned int& uid, const std::string& tallyFilePath) {
    return detail::tallyEntryOf(uid, tallyFilePath).count;
}

}  // namespace usermanagement
