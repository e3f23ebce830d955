// The system password-file lock as the threads of one process share it.
//
// lckpwdf is a lock of the whole process: while one thread holds it, lckpwdf from another
// thread of the same process fails at once instead of waiting (the C library sees the lock as
// already its own).  Two threads of a host changing accounts at the same moment would fail each
// other, and a PAM module storing a password (which takes the lock itself) would fail beside a
// thread of ours that holds it.  So every holder in the library first passes a gate of the
// process: other threads wait there, at most as long as lckpwdf waits for another process, and
// a thread that already holds the gate is refused at once, since it would wait for itself.
#pragma once

namespace usermanagement::detail {

// Passes the gate, then takes lckpwdf when `system` is true.  False with `error` set when the
// lock cannot be had: EDEADLK (this thread holds it already), ETIMEDOUT (another thread kept it
// too long), or lckpwdf's errno; nothing is held then.
bool lockPasswordFiles(bool system, int& error);
// Undoes a successful lockPasswordFiles with the same `system`, on the same thread.
void unlockPasswordFiles(bool system);

// The gate, and lckpwdf unless `system` is false, for a scope: the library's short reads of
// the shadow file, and PAM calls whose modules take lckpwdf themselves.
class PasswordFileLock {
public:
    // UMSystemErrorException 11 `message` when the lock cannot be had.
    explicit PasswordFileLock(const char* message, bool system = true);
    ~PasswordFileLock() { unlockPasswordFiles(m_system); }
    PasswordFileLock(const PasswordFileLock&) = delete;
    PasswordFileLock& operator=(const PasswordFileLock&) = delete;

private:
    const bool m_system;
};

}  // namespace usermanagement::detail
