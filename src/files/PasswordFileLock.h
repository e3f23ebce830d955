// The system password-file lock as the threads of one process share it.
//
// The lock is a write lock on the whole of /etc/.pwd.lock, the file that lckpwdf locks: other
// processes (shadow-utils, pam_unix) and the library exclude each other through it.  The library
// does not call lckpwdf, though.  lckpwdf waits for another process's lock by installing a
// handler for SIGALRM and calling alarm(15) ... alarm(0) around a blocking fcntl: in a threaded
// host the signal may be delivered to any thread (the waiting one then never wakes up, and the
// 15 seconds become "as long as the holder likes"), the handler replaces the host's own, and
// alarm(0) cancels an alarm the host had set.  So the library takes an open-file-description lock
// (F_OFD_SETLK) on the same file, which conflicts with the record locks lckpwdf takes elsewhere,
// and waits for it on the calling thread alone, by trying again after short sleeps until its
// deadline: no signal, no handler, no alarm.
//
// Its threads queue at a gate of the process first, one holder at a time.  A PAM module storing
// a password takes lckpwdf itself, which would wait for a lock of ours, so the library's PAM
// calls pass the gate without the file lock (`system` false) and keep our other threads from
// taking it meanwhile.  A thread that already holds the gate is refused at once, since it would
// wait for itself.
#pragma once

namespace usermanagement::detail {

// Passes the gate, then takes the file lock when `system` is true, both within 15 seconds (as
// lckpwdf waits for another process).  False with `error` set when the lock cannot be had:
// EDEADLK (this thread holds it already), ETIMEDOUT (another thread or process kept it too
// long), or the errno of the failed open or fcntl; nothing is held then.
bool lockPasswordFiles(bool system, int& error);
// Undoes a successful lockPasswordFiles with the same `system`, on the same thread.
void unlockPasswordFiles(bool system);

// The gate, and the file lock unless `system` is false, for a scope: the library's short reads
// of the shadow file, and PAM calls whose modules take lckpwdf themselves.
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
