// pam_tvc_tally.so - counts failed logins per account in the tally file (TallyFile.h) and
// refuses an account once its count has reached a limit.
//
//     auth     required /etc/tvc-pam/pam_tvc_tally.so deny=3
//     auth     required pam_unix.so
//     account  required pam_unix.so
//     account  required /etc/tvc-pam/pam_tvc_tally.so deny=3
//
// Options: file=PATH (default /var/log/tallylog), deny=N (0, the default: never refuse).
//
// auth counts every attempt as a failure before the password is checked (a process killed
// after the check cannot skip the count), stores the time and the remote host (or terminal),
// and lets the next module decide, unless the count had already reached deny: then the attempt
// is refused whatever the password, and still counted.  A login that reaches the account check
// has authenticated, so account resets the count to 0.  It refuses an account whose count has
// reached deny, without resetting it; the failure that this handle's own authentication
// recorded provisionally does not count there, since the attempt turned out right (otherwise
// the third attempt of deny=3 could never succeed).  A missing file is created (0600); a file
// that cannot be used fails the module with PAM_AUTHINFO_UNAVAIL, silently.
#include <security/pam_modules.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "TallyFile.h"

namespace {

using tvc::pam::Lookup;
using tvc::pam::TallyFile;
using tvc::pam::TallyRecord;

struct Options {
    std::string file = "/var/log/tallylog";
    unsigned long deny = 0;
};

bool parseOptions(int argc, const char** argv, Options& options) {
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.compare(0, 5, "file=") == 0 && arg.size() > 5) {
            options.file = arg.substr(5);
        } else if (arg.compare(0, 5, "deny=") == 0 && arg.size() > 5 && arg[5] >= '0' && arg[5] <= '9') {
            char* end = nullptr;
            errno = 0;
            options.deny = std::strtoul(arg.c_str() + 5, &end, 10);
            if (errno != 0 || *end != '\0') return false;
        } else {
            return false;
        }
    }
    return true;
}

// The handle's note that its authentication left one provisional failure on account `uid`:
// the uid itself, shifted by one so that uid 0 is no null pointer.  A value, so nothing to free.
constexpr const char* kPendingKey = "pam_tvc_tally_pending";
const void* pendingMark(uid_t uid) { return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(uid) + 1); }

// The uid of the handle's user, or the PAM status to return.
int userUid(pam_handle_t* pamh, uid_t& uid) {
    const char* user = nullptr;
    const int rc = pam_get_user(pamh, &user, nullptr);
    if (rc != PAM_SUCCESS) return rc;
    if (user == nullptr || *user == '\0') return PAM_USER_UNKNOWN;
    switch (tvc::pam::lookUpUid(user, uid)) {
        case Lookup::Found:
            return PAM_SUCCESS;
        case Lookup::Unknown:
            return PAM_USER_UNKNOWN;
        case Lookup::Failed:
            break;
    }
    return PAM_AUTHINFO_UNAVAIL;
}

// Where the attempt comes from: the remote host, else the terminal, else "".
void recordOrigin(pam_handle_t* pamh, TallyRecord& record) {
    std::memset(record.from, 0, sizeof record.from);
    for (const int item : {PAM_RHOST, PAM_TTY}) {
        const void* value = nullptr;
        if (pam_get_item(pamh, item, &value) == PAM_SUCCESS && value != nullptr && *static_cast<const char*>(value)) {
            // One byte stays NUL: readers may take the field for a C string.
            std::strncpy(record.from, static_cast<const char*>(value), sizeof record.from - 1);
            return;
        }
    }
}

int authenticate(pam_handle_t* pamh, const Options& options) {
    uid_t uid = 0;
    const int rc = userUid(pamh, uid);
    if (rc != PAM_SUCCESS) return rc;
    TallyFile file;
    TallyRecord record{};
    if (!file.open(options.file, true) || !file.lockRecord(uid) || !file.read(uid, record)) return PAM_AUTHINFO_UNAVAIL;
    const bool refused = options.deny > 0 && record.failures >= options.deny;
    if (record.failures < tvc::pam::kMaxFailures) ++record.failures;
    record.lastFailure = static_cast<std::int64_t>(std::time(nullptr));
    recordOrigin(pamh, record);
    if (!file.write(uid, record)) return PAM_AUTHINFO_UNAVAIL;
    // A refused attempt is a failure for good; only an attempt left to the next module may
    // still turn out to be a success.
    if (pam_set_data(pamh, kPendingKey, refused ? nullptr : const_cast<void*>(pendingMark(uid)), nullptr) !=
        PAM_SUCCESS)
        return PAM_BUF_ERR;
    return refused ? PAM_AUTH_ERR : PAM_SUCCESS;
}

int checkAccount(pam_handle_t* pamh, const Options& options) {
    uid_t uid = 0;
    const int rc = userUid(pamh, uid);
    if (rc != PAM_SUCCESS) return rc;
    const void* pending = nullptr;
    const bool ownFailure = pam_get_data(pamh, kPendingKey, &pending) == PAM_SUCCESS && pending == pendingMark(uid);
    TallyFile file;
    if (!file.open(options.file, false)) return errno == ENOENT ? PAM_SUCCESS : PAM_AUTHINFO_UNAVAIL;
    TallyRecord record{};
    if (!file.lockRecord(uid) || !file.read(uid, record)) return PAM_AUTHINFO_UNAVAIL;
    const unsigned long earlier = record.failures - (ownFailure && record.failures > 0 ? 1 : 0);
    if (options.deny > 0 && earlier >= options.deny) return PAM_PERM_DENIED;
    if (record.failures != 0) {
        // The latest failure's time and origin stay for the record.
        record.failures = 0;
        if (!file.write(uid, record)) return PAM_AUTHINFO_UNAVAIL;
    }
    pam_set_data(pamh, kPendingKey, nullptr, nullptr);
    return PAM_SUCCESS;
}

// Runs `step` with the module's options; a bad option fails the module (a stack that means
// something else than it says must not let anyone in), and so does a failed allocation.
template <typename Step>
int run(pam_handle_t* pamh, int argc, const char** argv, Step step) {
    try {
        Options options;
        if (!parseOptions(argc, argv, options)) return PAM_SERVICE_ERR;
        return step(pamh, options);
    } catch (const std::bad_alloc&) {
        return PAM_BUF_ERR;
    } catch (...) {
        return PAM_SERVICE_ERR;
    }
}

}  // namespace

extern "C" {

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* pamh, int, int argc, const char** argv) {
    return run(pamh, argc, argv, authenticate);
}

PAM_EXTERN int pam_sm_setcred(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }

PAM_EXTERN int pam_sm_acct_mgmt(pam_handle_t* pamh, int, int argc, const char** argv) {
    return run(pamh, argc, argv, checkAccount);
}

}  // extern "C"
