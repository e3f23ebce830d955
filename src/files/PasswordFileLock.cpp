#include "files/PasswordFileLock.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

#include <usermanagement/UMException.h>

#include "foundation/Descriptor.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

using Clock = std::chrono::steady_clock;

// The file lckpwdf locks, and how long it waits for a holder in another process.
constexpr const char* kLockFile = "/etc/.pwd.lock";
constexpr std::chrono::seconds kPatience{15};
// The first pause between two tries and the longest: a holder that lets go is noticed within
// that time, a long holder costs a few dozen tries a second.
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLongestPause{25};

// The write lock on the whole lock file, held as long as the object lives.  An open file
// description's lock (F_OFD_SETLK) belongs to the descriptor, not to the process: it conflicts
// with lckpwdf's record locks in other processes and in this one, and no close() of another
// descriptor of the file elsewhere in the process (a PAM module's ulckpwdf) lets it go.
class LockFile {
public:
    LockFile() = default;
    // Opens the lock file (made 0600 when missing, as lckpwdf makes it) and takes the lock
    // before `deadline`, trying again after short sleeps on the calling thread.  Holds nothing,
    // with `error` set, when it fails.
    LockFile(Clock::time_point deadline, int& error)
        : m_file(open(kLockFile, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
        if (!m_file) {
            error = errno;
            return;
        }
        std::chrono::milliseconds pause = kFirstPause;
        for (;;) {
            if (change(F_WRLCK)) return;
            const int failure = errno;
            if (failure == EINVAL && m_command == F_OFD_SETLK) {
                // A kernel before Linux 3.15 has no such locks; a record lock is the process's
                // own, which the gate makes one thread's at a time.
                m_command = F_SETLK;
                continue;
            }
            if (failure == EINTR) continue;
            // EAGAIN or EACCES: someone else holds it.
            const bool held = failure == EAGAIN || failure == EACCES;
            const Clock::time_point now = Clock::now();
            if (!held || now >= deadline) {
                error = held ? ETIMEDOUT : failure;
                m_file.reset();
                return;
            }
            std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
            pause = std::min(pause * 2, kLongestPause);
        }
    }
    LockFile(LockFile&& other) noexcept
        : m_file(std::move(other.m_file)), m_command(other.m_command) {}
    LockFile& operator=(LockFile&& other) noexcept {
        if (this != &other) {
            release();
            m_file = std::move(other.m_file);
            m_command = other.m_command;
        }
        return *this;
    }
    ~LockFile() { release(); }

    explicit operator bool() const { return static_cast<bool>(m_file); }

    // Unlocks before closing: a child the host forked meanwhile shares the description until it
    // execs, and must not keep the lock alive.
    void release() noexcept {
        if (m_file) (void)change(F_UNLCK);
        m_file.reset();
    }

private:
    bool change(short type) noexcept {
        struct flock whole {};  // from the start to any end; l_pid 0, as these locks require
        whole.l_type = type;
        whole.l_whence = SEEK_SET;
        return fcntl(m_file.get(), m_command, &whole) == 0;
    }

    Descriptor m_file;
    int m_command = F_OFD_SETLK;
};

std::timed_mutex& gate() {
    static std::timed_mutex mutex;
    return mutex;
}

// The file lock of the thread that holds the gate; only that thread touches it.
LockFile& heldFile() {
    static LockFile file;
    return file;
}

thread_local bool heldByThisThread = false;

}  // namespace

bool lockPasswordFiles(bool system, int& error) {
    if (heldByThisThread) {
        error = EDEADLK;
        return false;
    }
    // One deadline for the gate and the file: the caller waits 15 seconds at most.
    const Clock::time_point deadline = Clock::now() + kPatience;
    if (!gate().try_lock_until(deadline)) {
        error = ETIMEDOUT;
        return false;
    }
    if (system) {
        LockFile file(deadline, error);
        if (!file) {
            gate().unlock();
            return false;
        }
        heldFile() = std::move(file);
    }
    heldByThisThread = true;
    return true;
}

void unlockPasswordFiles(bool system) {
    if (system) heldFile().release();
    heldByThisThread = false;
    gate().unlock();
}

PasswordFileLock::PasswordFileLock(const char* message, bool system) : m_system(system) {
    int error = 0;
    if (!lockPasswordFiles(system, error))
        raiseErrno<UMSystemErrorException>(error, UMSystemError::FilesLocked, message);
}

}  // namespace usermanagement::detail
