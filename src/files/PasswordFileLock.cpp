#include "files/PasswordFileLock.h"

#include <shadow.h>

#include <cerrno>
#include <chrono>
#include <mutex>

#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

// As long as lckpwdf waits for a holder in another process.
constexpr std::chrono::seconds kThreadPatience{15};

std::timed_mutex& gate() {
    static std::timed_mutex mutex;
    return mutex;
}

thread_local bool heldByThisThread = false;

}  // namespace

bool lockPasswordFiles(bool system, int& error) {
    if (heldByThisThread) {
        error = EDEADLK;
        return false;
    }
    if (!gate().try_lock_for(kThreadPatience)) {
        error = ETIMEDOUT;
        return false;
    }
    errno = 0;
    if (system && lckpwdf() != 0) {
        error = errno;
        gate().unlock();
        return false;
    }
    heldByThisThread = true;
    return true;
}

void unlockPasswordFiles(bool system) {
    if (system) (void)ulckpwdf();
    heldByThisThread = false;
    gate().unlock();
}

PasswordFileLock::PasswordFileLock(const char* message, bool system) : m_system(system) {
    int error = 0;
    if (!lockPasswordFiles(system, error))
        raiseErrno<UMSystemErrorException>(error, UMSystemError::FilesLocked, message);
}

}  // namespace usermanagement::detail
