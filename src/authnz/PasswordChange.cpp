// Password changes through pam_chauthtok, and the classification of a refusal: the texts the
// modules showed (in the C locale, see CLocale) are compared with the password-quality rules'
// texts, so that the web client can tell its user which rule the new password broke.
#include <authnz/WebPam.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <authnz/AuthNZException.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "authnz/AsRoot.h"
#include "files/PasswordFileLock.h"
#include "foundation/Descriptor.h"
#include "foundation/Raise.h"

namespace authnz {

namespace {

using usermanagement::UpdatePasswordError;
using usermanagement::UpdatePasswordException;

// One rule's text as libpwquality gives it in the C locale, whole: "%d" stands for the number
// it fills in, "%s" for the reason the dictionary check adds.  No text matches two entries, so
// their order does not matter.
struct Rule {
    const char* text;
    int code;
};

constexpr Rule kRules[] = {
    {"The password is the same as the old one", UpdatePasswordError::SameAsOld},
    {"The password differs with case changes only", UpdatePasswordError::SameAsOld},
    {"The password is a palindrome", UpdatePasswordError::Palindrome},
    {"The password is too similar to the old one", UpdatePasswordError::TooSimilar},
    {"The password contains the user name in some form", UpdatePasswordError::ContainsUserName},
    {"The password contains words from the real name of the user in some form", UpdatePasswordError::ContainsRealName},
    {"The password contains forbidden words in some form", UpdatePasswordError::ForbiddenWords},
    {"The password contains less than %d digits", UpdatePasswordError::TooFewDigits},
    {"The password contains too few digits", UpdatePasswordError::TooFewDigits},
    {"The password contains less than %d uppercase letters", UpdatePasswordError::TooFewUppercase},
    {"The password contains too few uppercase letters", UpdatePasswordError::TooFewUppercase},
    {"The password contains less than %d lowercase letters", UpdatePasswordError::TooFewLowercase},
    {"The password contains too few lowercase letters", UpdatePasswordError::TooFewLowercase},
    {"The password contains less than %d non-alphanumeric characters", UpdatePasswordError::TooFewOthers},
    {"The password contains too few non-alphanumeric characters", UpdatePasswordError::TooFewOthers},
    {"The password is shorter than %d characters", UpdatePasswordError::TooShort},
    {"The password is too short", UpdatePasswordError::TooShort},
    {"The password is just rotated old one", UpdatePasswordError::Rotated},
    {"The password contains less than %d character classes", UpdatePasswordError::TooFewClasses},
    {"The password does not contain enough character classes", UpdatePasswordError::TooFewClasses},
    {"The password contains more than %d same characters consecutively", UpdatePasswordError::TooManyRepeats},
    {"The password contains too many same characters consecutively", UpdatePasswordError::TooManyRepeats},
    {"The password contains more than %d characters of the same class consecutively",
     UpdatePasswordError::TooManyClassRepeats},
    {"The password contains too many characters of the same class consecutively",
     UpdatePasswordError::TooManyClassRepeats},
    {"The password contains monotonic sequence longer than %d characters", UpdatePasswordError::Monotonic},
    {"The password contains too long of a monotonic character sequence", UpdatePasswordError::Monotonic},
    {"The password fails the dictionary check", UpdatePasswordError::Dictionary},
    {"The password fails the dictionary check - %s", UpdatePasswordError::Dictionary},
};

// pam_pwquality shows the texts behind one of these (the second when root is only warned).
constexpr const char* kModulePrefixes[] = {"BAD PASSWORD: ", "bad password: "};

// Whether all of `text` is `pattern`: "%d" takes one or more digits, "%s" one or more characters.
bool matches(const char* pattern, const char* text) {
    for (; *pattern != '\0'; ++pattern, ++text) {
        if (pattern[0] == '%' && pattern[1] == 'd') {
            if (!std::isdigit(static_cast<unsigned char>(*text))) return false;
            while (std::isdigit(static_cast<unsigned char>(text[1]))) ++text;
            ++pattern;
        } else if (pattern[0] == '%' && pattern[1] == 's') {
            for (const char* end = text + 1; *(end - 1) != '\0'; ++end)
                if (matches(pattern + 2, end)) return true;
            return false;
        } else if (*pattern != *text) {
            return false;
        }
    }
    return *text == '\0';
}

// The code of the rule `message` names, or 0 when it is no rule's text.
int ruleOf(const std::string& message) {
    const char* text = message.c_str();
    for (const char* prefix : kModulePrefixes)
        if (message.rfind(prefix, 0) == 0) text += std::strlen(prefix);
    for (const Rule& rule : kRules)
        if (matches(rule.text, text)) return rule.code;
    return 0;
}

// The collected texts as one message, or else the first of its ','-separated parts (as
// appendMsg joins them) that is a rule's text; PasswordSecurityRules when none is.
int classify(const std::string& messages) {
    if (const int code = ruleOf(messages)) return code;
    for (std::size_t start = 0; start <= messages.size();) {
        const std::size_t end = std::min(messages.find(',', start), messages.size());
        if (const int code = ruleOf(messages.substr(start, end - start))) return code;
        start = end + 1;
    }
    return UpdatePasswordError::PasswordSecurityRules;
}

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
    int code = classify(m_pamMessages);
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
