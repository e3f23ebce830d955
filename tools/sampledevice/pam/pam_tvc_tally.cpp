// pam_tvc_tally.so - counts failed logins per account in the tally file (TallyFile.h) and
// refuses an account once its count has reached a limit.  It runs three times in auth, around
// the password module:
//
//     auth     requisite                /etc/tvc-pam/pam_tvc_tally.so preauth deny=3
//     auth     [success=1 default=bad]  pam_unix.so use_first_pass
//     auth     [default=die]            /etc/tvc-pam/pam_tvc_tally.so authfail deny=3
//     auth     required                 /etc/tvc-pam/pam_tvc_tally.so authsucc deny=3
//
// Options: exactly one of preauth, authfail, authsucc; file=PATH (default /var/log/tallylog);
// deny=N (0, the default: never refuse).  The three lines must name the same file and limit.
//
// preauth asks for the password (PAM_AUTHTOK, which the password module takes with
// use_first_pass), then takes the write lock on the account's record and counts the attempt as
// a failure, on disk, before the password is checked: a process killed during the check, which
// may already have learnt the verdict, has been counted.  An account whose count had already
// reached deny is refused there whatever the password, and the attempt stays counted.
// Otherwise the attempt keeps the record lock, with the open file, in the PAM handle until it is
// settled: authsucc takes the count back and clears the record's failures (a right password
// resets the count; the time and origin of the latest failure stay as they were), authfail
// lets the count stand.  A process that dies meanwhile loses the lock with its descriptor, and
// its attempt stays a failure.
//
// Why the lock is held across the password check: attempts at one account are settled one at a
// time, so each one sees a count in which every earlier attempt is already a failure or taken
// back.  A right password is never refused because of attempts still in flight, however many
// run at once, and exactly one attempt's failure is the one that takes the count to deny.  The
// hold covers the password check only, never a prompt: the password is asked for before the
// lock is taken, so nobody can hold other logins of the account by not answering.  Logins of
// other accounts lock other records and are not held up.
//
// authfail puts TVC_TALLY_LOCKED=1 into the PAM environment when this attempt's failure is the
// one that took the count to deny, and preauth puts TVC_TALLY_LOCKED=0 first, so a client can
// tell that the module answered.  The client logs its "locked" event from that answer: a read
// of the file after pam_authenticate returned would see other attempts' counts too.
//
// The module has no account step: the verdict on the count is taken in auth, under the lock.
// An account check after it would see failures that other attempts counted since, and refuse a
// login whose password was right.  A missing file is created (0600); a file that cannot be
// used fails the module with PAM_AUTHINFO_UNAVAIL, silently.
#include <security/pam_ext.h>
#include <security/pam_modules.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "TallyFile.h"

namespace {

using tvc::pam::Lookup;
using tvc::pam::TallyFile;
using tvc::pam::TallyRecord;

enum class Step { None, PreAuth, AuthFail, AuthSucc };

struct Options {
    Step step = Step::None;
    std::string file = "/var/log/tallylog";
    unsigned long deny = 0;
};

bool parseOptions(int argc, const char** argv, Options& options) {
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        const Step step = arg == "preauth" ? Step::PreAuth
                          : arg == "authfail" ? Step::AuthFail
                          : arg == "authsucc" ? Step::AuthSucc
                                              : Step::None;
        if (step != Step::None && options.step == Step::None) {
            options.step = step;
        } else if (arg.compare(0, 5, "file=") == 0 && arg.size() > 5) {
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
    return options.step != Step::None;
}

// An attempt counted by preauth and not yet settled: the open file holds the record lock.
struct Attempt {
    TallyFile file;
    uid_t uid = 0;
    TallyRecord before{};  // the record as it was before this attempt was counted
    bool locks = false;    // this attempt's count is the one that reached deny
};

constexpr const char* kAttemptKey = "pam_tvc_tally_attempt";
// The answer to the client, in the PAM environment.
constexpr const char* kNotLocked = "TVC_TALLY_LOCKED=0";
constexpr const char* kLocked = "TVC_TALLY_LOCKED=1";

void dropAttempt(pam_handle_t*, void* data, int) { delete static_cast<Attempt*>(data); }

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

int preAuthenticate(pam_handle_t* pamh, const Options& options) {
    // An attempt of an earlier call on this handle that was never settled stays a failure; its
    // lock goes before this attempt waits for the record.
    pam_set_data(pamh, kAttemptKey, nullptr, nullptr);
    if (pam_putenv(pamh, kNotLocked) != PAM_SUCCESS) return PAM_BUF_ERR;
    uid_t uid = 0;
    int rc = userUid(pamh, uid);
    if (rc != PAM_SUCCESS) return rc;
    const char* password = nullptr;
    rc = pam_get_authtok(pamh, PAM_AUTHTOK, &password, nullptr);
    if (rc != PAM_SUCCESS) return rc;

    auto attempt = std::make_unique<Attempt>();
    attempt->uid = uid;
    TallyFile& file = attempt->file;
    if (!file.open(options.file, true) || !file.lockRecord(uid) || !file.read(uid, attempt->before))
        return PAM_AUTHINFO_UNAVAIL;
    TallyRecord record = attempt->before;
    const bool refused = options.deny > 0 && record.failures >= options.deny;
    if (record.failures < tvc::pam::kMaxFailures) ++record.failures;
    record.lastFailure = static_cast<std::int64_t>(std::time(nullptr));
    recordOrigin(pamh, record);
    if (!file.write(uid, record)) return PAM_AUTHINFO_UNAVAIL;
    // A refused attempt is settled as a failure now (the lock goes with `attempt`).
    if (refused) return PAM_AUTH_ERR;
    attempt->locks = options.deny > 0 && record.failures == options.deny;
    if (pam_set_data(pamh, kAttemptKey, attempt.get(), dropAttempt) != PAM_SUCCESS) return PAM_BUF_ERR;
    attempt.release();
    return PAM_SUCCESS;
}

// authfail and authsucc: the attempt preauth counted on this handle is settled.
int settle(pam_handle_t* pamh, const Options& options) {
    const void* data = nullptr;
    if (pam_get_data(pamh, kAttemptKey, &data) != PAM_SUCCESS || data == nullptr) return PAM_AUTH_ERR;
    auto* attempt = static_cast<Attempt*>(const_cast<void*>(data));
    int rc = PAM_AUTH_ERR;
    if (options.step == Step::AuthSucc) {
        TallyRecord record = attempt->before;
        record.failures = 0;
        rc = attempt->file.write(attempt->uid, record) ? PAM_SUCCESS : PAM_AUTHINFO_UNAVAIL;
    } else if (attempt->locks && pam_putenv(pamh, kLocked) != PAM_SUCCESS) {
        rc = PAM_BUF_ERR;
    }
    // Closes the file: the record lock goes.
    pam_set_data(pamh, kAttemptKey, nullptr, nullptr);
    return rc;
}

// Runs the step its options name; a bad option fails the module (a stack that means something
// else than it says must not let anyone in), and so does a failed allocation.
int run(pam_handle_t* pamh, int argc, const char** argv) {
    try {
        Options options;
        if (!parseOptions(argc, argv, options)) return PAM_SERVICE_ERR;
        return options.step == Step::PreAuth ? preAuthenticate(pamh, options) : settle(pamh, options);
    } catch (const std::bad_alloc&) {
        return PAM_BUF_ERR;
    } catch (...) {
        return PAM_SERVICE_ERR;
    }
}

}  // namespace

extern "C" {

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* pamh, int, int argc, const char** argv) {
    return run(pamh, argc, argv);
}

PAM_EXTERN int pam_sm_setcred(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }

}  // extern "C"
