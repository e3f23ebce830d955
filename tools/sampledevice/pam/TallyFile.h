// The failed-login tally file that pam_tvc_tally.so keeps, pam_tally2 shows and resets and the
// library reads: a sparse array of 64-byte records indexed by user id, no header, host byte
// order.  A uid without a record (a hole, or beyond the end of the file) has no failures.
#pragma once

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tvc::pam {

struct TallyRecord {
    char from[52];             // terminal or remote host of the last failure, NUL-padded
    std::uint16_t reserved;    // always 0
    std::uint16_t failures;    // saturates at 65535
    std::int64_t lastFailure;  // seconds since the epoch, 0 when there was none
};
static_assert(sizeof(TallyRecord) == 64, "a record is 64 bytes");
static_assert(offsetof(TallyRecord, failures) == 54 && offsetof(TallyRecord, lastFailure) == 56,
              "the count and the time sit where the readers look for them");

constexpr std::uint16_t kMaxFailures = 0xffff;

// The tally file, open for the records of one or more accounts.  Every call returns false with
// errno set when the file cannot be used; the descriptor is closed with the object, and with it
// every record lock it holds.
class TallyFile {
public:
    TallyFile() = default;
    TallyFile(const TallyFile&) = delete;
    TallyFile& operator=(const TallyFile&) = delete;
    ~TallyFile() {
        if (fd_ >= 0) close(fd_);
    }

    // Opens `path` for reading and writing; `create` makes a missing file (mode 0600), otherwise a
    // missing file fails with ENOENT.  Never through a symbolic link, and only a regular file: a
    // FIFO or a device planted at the path must neither hang nor feed the caller.
    bool open(const std::string& path, bool create) {
        const int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (create ? O_CREAT : 0);
        fd_ = ::open(path.c_str(), flags, 0600);
        if (fd_ < 0) return false;
        struct stat st {};
        if (fstat(fd_, &st) != 0) return false;
        if (!S_ISREG(st.st_mode)) {
            errno = EINVAL;
            return false;
        }
        return true;
    }

    // Waits for a write lock on the record of `uid`; it holds until the object goes.  The lock
    // belongs to this open file description, not to the process (F_OFD_SETLKW): two threads of
    // one process, each with its own TallyFile, exclude each other as two processes do.  Every
    // writer locks before reading, so no read-modify-write loses a count; the tally module keeps
    // the lock across a login's password check, and the library reads under a read lock.
    bool lockRecord(uid_t uid) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = offsetOf(uid);
        lock.l_len = sizeof(TallyRecord);
        // l_pid must be 0 for open file description locks.
        while (fcntl(fd_, F_OFD_SETLKW, &lock) != 0) {
            if (errno != EINTR) return false;
        }
        return true;
    }

    // The record of `uid`; all zero when the file holds none.
    bool read(uid_t uid, TallyRecord& record) const {
        char bytes[sizeof(TallyRecord)] = {};
        std::size_t got = 0;
        while (got < sizeof bytes) {
            const ssize_t n = pread(fd_, bytes + got, sizeof bytes - got, offsetOf(uid) + static_cast<off_t>(got));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return false;
            if (n == 0) break;  // end of file: the rest of the record is zero
            got += static_cast<std::size_t>(n);
        }
        std::memcpy(&record, bytes, sizeof record);
        return true;
    }

    // Writes the whole record of `uid` (a short write is an error: ENOSPC).
    bool write(uid_t uid, const TallyRecord& record) {
        const ssize_t n = pwrite(fd_, &record, sizeof record, offsetOf(uid));
        if (n == static_cast<ssize_t>(sizeof record)) return true;
        if (n >= 0) errno = ENOSPC;
        return false;
    }

private:
    // 64-bit before multiplying: uid * 64 leaves 32 bits from uid 67108864 on.
    static off_t offsetOf(uid_t uid) { return static_cast<off_t>(uid) * static_cast<off_t>(sizeof(TallyRecord)); }

    int fd_ = -1;
};

enum class Lookup { Found, Unknown, Failed };

// The uid of account `name` (getpwnam_r, growing the buffer for long entries).  Unknown only when
// the database answered that there is no such account; a database that failed is no answer.
inline Lookup lookUpUid(const char* name, uid_t& uid) {
    const long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(hint > 0 ? static_cast<std::size_t>(hint) : 1024);
    for (;;) {
        struct passwd entry {};
        struct passwd* found = nullptr;
        const int rc = getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < (std::size_t{1} << 24)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc == 0 && found != nullptr) {
            uid = found->pw_uid;
            return Lookup::Found;
        }
        return rc == 0 || rc == ENOENT || rc == ESRCH ? Lookup::Unknown : Lookup::Failed;
    }
}

}  // namespace tvc::pam
