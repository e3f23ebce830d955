// Password changes through pam_chauthtok, and the classification of a refusal: the texts the
// modules showed (in the C locale, see CLocale) are compared with the password-quality rules'
// texts, so that the web client can tell its user which rule the new password broke
// (RuleMessages.h).
#include <authnz/WebPam.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <authnz/AuthNZException.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "authnz/AsRoot.h"
#include "authnz/RuleMessages.h"
#include "files/PasswordFileLock.h"
#include "foundation/Descriptor.h"
#include "foundation/Raise.h"

namespace authnz {

namespace {

using usermanagement::UpdatePasswordError;
using usermanagement::UpdatePasswordException;

// The system's password-file lock (the file lckpwdf locks; the library's transactions lock it too,
// PasswordFileLock.h) and how long a holder may keep it before a password change gives up.  The
// library's own file transactions hold it for milliseconds.
constexpr const char* kPasswordLock = "/etc/.pwd.lock";
constexpr std::chrono::seconds kLockPatience{5};

// pam_unix takes the password-file lock itself to store the new hash, and waits for it as long
// as another process holds it: a web request would hang with it.  So the change starts only
// once the lock is free (or after a short wait), and otherwise fails with a clear error.
// Run as root (the lock file is root's).  A holder that takes the lock after this check is
// still waited for by pam_unix; the check keeps the common case (a stuck or long holder) from
// hanging the caller.  Our own threads are kept out by the caller (PasswordFileLock).
void waitForFreePasswordLock() {
    const usermanagement::detail::Descriptor lock(open(kPasswordLock, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock) return;  // no lock file: nobody can hold it
    const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
    for (;;) {
        struct flock probe {};
        probe.l_type = F_WRLCK;
        probe.l_whence = SEEK_SET;
        if (fcntl(lock.get(), F_GETLK, &probe) != 0 || probe.l_type == F_UNLCK) return;
        // The holder's process is known for a record lock (lckpwdf); an open file description's
        // lock (another process of the library) reports none.
        if (std::chrono::steady_clock::now() >= deadline)
            usermanagement::detail::raise<usermanagement::UMSystemErrorException>(
                usermanagement::UMSystemError::FilesLocked, "pamChauthtok:password files locked by ",
                probe.l_pid > 0 ? "process " + std::to_string(probe.l_pid) : std::string("another process"));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace

void WebPam::pamChauthtok(const char* oldPassword, const char* newPassword) {
    detail::Borrowed current(m_password, oldPassword);
    detail::Borrowed next(m_newPassword, newPassword);
    m_pamMessages.clear();
    // Beyond the maximum, PAM is not asked at all; strnlen stops looking one byte past it.
    const std::size_t max = usermanagement::UserDefinition::GetUserDefinition().getDBPasswordMaxLen();
    if (strnlen(newPassword, max + 1) > max || strnlen(oldPassword, max + 1) > max) {
        m_pamMessages = "Password too long";
        throw UpdatePasswordException(UpdatePasswordError::NewPasswordTooLong, "", "", m_pamUser, true);
    }
    setConvState(Start);
    const detail::CLocale cLocale;
    m_lastStatus = pam_set_item(m_pamHandle, PAM_CONV, &m_chauthtokConv);
    if (m_lastStatus != PAM_SUCCESS)
        throw AuthNZException(AuthNZError::InitError, "InternalError", pam_strerror(m_pamHandle, m_lastStatus),
                              m_pamUser, true);
    {
        // The modules take the system lock themselves (lckpwdf); the gate keeps our other
        // threads from holding it meanwhile, which would make that lckpwdf wait for them.
        const usermanagement::detail::PasswordFileLock gate("pamChauthtok:password files locked", false);
        const detail::AsRoot root;
        waitForFreePasswordLock();
        m_lastStatus = pam_chauthtok(m_pamHandle, PAM_CHANGE_EXPIRED_AUTHTOK);
    }
    current.end();
    next.end();
    if (m_lastStatus == PAM_SUCCESS) return;
    if (m_pamMessages.empty()) appendMsg(pam_strerror(m_pamHandle, m_lastStatus));
    int code = detail::classify(m_pamMessages);
    // Refused while the current password was being checked: a wrong current password,
    // whatever the texts say.
    if (m_convState == CurrentPassword) {
        code = UpdatePasswordError::InvalidCredentials;
        if (m_pamMessages.find("token manipulation error") != std::string::npos)
            m_pamMessages = "Incorrect old password";
    }
    throw UpdatePasswordException(code, m_pamMessages.c_str(), "", m_pamUser, true);
}

}  // namespace authnz
