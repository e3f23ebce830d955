// pam_tvc_script.so - a PAM module that holds the conversation its arguments describe, so that
// a test can put the prompts and messages it wants in front of a PAM client through real libpam.
//
//     auth required /etc/tvc-pam/pam_tvc_script.so off=Password: call info=a [info=b c] report=/var/log/r
//
// Arguments, in order; each message joins the current conversation call:
//     off=TEXT      a PAM_PROMPT_ECHO_OFF prompt
//     on=TEXT       a PAM_PROMPT_ECHO_ON prompt
//     info=TEXT     a PAM_TEXT_INFO message (`info=` is one with the empty text)
//     error=TEXT    a PAM_ERROR_MSG message
//     times=N       the previous message N times in all in the current call (N >= 1)
//     call          ends the current call; the next message starts another one
//     report=PATH   appends a line per call made to PATH:
//                   rc=<conversation's return> n=<messages> answers=<answer>|<answer>|...
//                   an answer being its text as given, or `-` for a null response
//     result=NAME   what the module returns after its calls: success, auth_err, authtok_err,
//                   new_authtok_reqd, perm_denied or authtok_lock_busy
//     prelim        pam_sm_chauthtok talks in the PAM_PRELIM_CHECK phase instead of the
//                   PAM_UPDATE_AUTHTOK one (it returns PAM_SUCCESS in the other phase)
// TEXT is taken literally.  libpam splits a service line's arguments at blanks; an argument in
// square brackets is kept whole, blanks included, without the brackets (`[info=b c]` is the
// message "b c"; `\]` inside stands for `]`), see pam.conf(5).
//
// Calls are made in order; a call without messages is not made.  The first call whose
// conversation does not return PAM_SUCCESS is the last one; without result= the module then
// returns that call's status, PAM_SUCCESS otherwise.  A bad argument returns PAM_SERVICE_ERR,
// a report that cannot be written PAM_SYSTEM_ERR.  The module provides every service: auth,
// account and password talk; setcred and the session functions only succeed.
#include <fcntl.h>
#include <security/pam_modules.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Message {
    int style;
    std::string text;
};

struct Script {
    std::vector<std::vector<Message>> calls{1};
    std::string report;
    int result = -1;  // none given
    bool prelim = false;
};

bool parseResult(const std::string& name, int& result) {
    static const std::pair<const char*, int> names[] = {
        {"success", PAM_SUCCESS},         {"auth_err", PAM_AUTH_ERR},
        {"authtok_err", PAM_AUTHTOK_ERR}, {"new_authtok_reqd", PAM_NEW_AUTHTOK_REQD},
        {"perm_denied", PAM_PERM_DENIED}, {"authtok_lock_busy", PAM_AUTHTOK_LOCK_BUSY}};
    for (const auto& [text, value] : names) {
        if (name == text) {
            result = value;
            return true;
        }
    }
    return false;
}

bool parseScript(int argc, const char** argv, Script& script) {
    static const std::pair<const char*, int> styles[] = {{"off=", PAM_PROMPT_ECHO_OFF},
                                                         {"on=", PAM_PROMPT_ECHO_ON},
                                                         {"info=", PAM_TEXT_INFO},
                                                         {"error=", PAM_ERROR_MSG}};
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        const std::size_t eq = arg.find('=');
        const std::string key = arg.substr(0, eq == std::string::npos ? arg.size() : eq + 1);
        const std::string value = eq == std::string::npos ? "" : arg.substr(eq + 1);
        std::vector<Message>& current = script.calls.back();
        bool known = false;
        for (const auto& [prefix, style] : styles) {
            if (key == prefix) {
                current.push_back({style, value});
                known = true;
            }
        }
        if (known) continue;
        if (key == "call") {
            script.calls.emplace_back();
        } else if (key == "prelim") {
            script.prelim = true;
        } else if (key == "times=") {
            char* end = nullptr;
            const long n = std::strtol(value.c_str(), &end, 10);
            if (current.empty() || value.empty() || *end != '\0' || n < 1 || n > 4096) return false;
            current.resize(current.size() - 1 + static_cast<std::size_t>(n), current.back());
        } else if (key == "report=" && !value.empty()) {
            script.report = value;
        } else if (key != "result=" || !parseResult(value, script.result)) {
            return false;
        }
    }
    return true;
}

// The conversation's answers: every text and the array are the module's to free.  The texts
// may be passwords, so they are wiped first.
class Responses {
public:
    explicit Responses(std::size_t count) : count_(count) {}
    Responses(const Responses&) = delete;
    Responses& operator=(const Responses&) = delete;
    ~Responses() {
        if (responses_ == nullptr) return;
        for (std::size_t i = 0; i < count_; ++i) {
            if (responses_[i].resp == nullptr) continue;
            explicit_bzero(responses_[i].resp, std::strlen(responses_[i].resp));
            std::free(responses_[i].resp);
        }
        std::free(responses_);
    }
    pam_response** receive() { return &responses_; }
    // "-" for a null response (or no response array at all).
    std::string answer(std::size_t i) const {
        return responses_ == nullptr || responses_[i].resp == nullptr ? "-" : responses_[i].resp;
    }

private:
    std::size_t count_;
    pam_response* responses_ = nullptr;
};

// One conversation call; `line` gets its report line.
int converse(pam_handle_t* pamh, const std::vector<Message>& call, std::string& line) {
    const void* item = nullptr;
    if (pam_get_item(pamh, PAM_CONV, &item) != PAM_SUCCESS || item == nullptr) return PAM_CONV_ERR;
    const auto* conversation = static_cast<const pam_conv*>(item);
    if (conversation->conv == nullptr) return PAM_CONV_ERR;
    // The pointers lead into one array, so that a client reading msg as a pointer to an array
    // of messages (Solaris) and one reading it as an array of pointers (Linux-PAM) agree.
    std::vector<pam_message> messages(call.size());
    std::vector<const pam_message*> pointers(call.size());
    for (std::size_t i = 0; i < call.size(); ++i) {
        messages[i] = {call[i].style, call[i].text.c_str()};
        pointers[i] = &messages[i];
    }
    Responses responses(call.size());
    const int rc = conversation->conv(static_cast<int>(call.size()), pointers.data(), responses.receive(),
                                      conversation->appdata_ptr);
    line = "rc=" + std::to_string(rc) + " n=" + std::to_string(call.size()) + " answers=";
    for (std::size_t i = 0; i < call.size(); ++i) line += (i ? "|" : "") + responses.answer(i);
    return rc;
}

bool appendLine(const std::string& path, const std::string& line) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0) return false;
    const std::string text = line + "\n";
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && written;
}

int play(pam_handle_t* pamh, const Script& script) {
    int failed = PAM_SUCCESS;
    for (const std::vector<Message>& call : script.calls) {
        if (call.empty()) continue;
        std::string line;
        failed = converse(pamh, call, line);
        if (!script.report.empty() && !line.empty() && !appendLine(script.report, line)) return PAM_SYSTEM_ERR;
        if (failed != PAM_SUCCESS) break;
    }
    return script.result >= 0 ? script.result : failed;
}

// Runs the script of the arguments when `talk(script)` says this call should.
template <typename Talk>
int run(pam_handle_t* pamh, int argc, const char** argv, Talk talk) {
    try {
        Script script;
        if (!parseScript(argc, argv, script)) return PAM_SERVICE_ERR;
        return talk(script) ? play(pamh, script) : PAM_SUCCESS;
    } catch (const std::bad_alloc&) {
        return PAM_BUF_ERR;
    } catch (...) {
        return PAM_SERVICE_ERR;
    }
}

bool always(const Script&) { return true; }

}  // namespace

extern "C" {

PAM_EXTERN int pam_sm_authenticate(pam_handle_t* pamh, int, int argc, const char** argv) {
    return run(pamh, argc, argv, always);
}

PAM_EXTERN int pam_sm_acct_mgmt(pam_handle_t* pamh, int, int argc, const char** argv) {
    return run(pamh, argc, argv, always);
}

PAM_EXTERN int pam_sm_chauthtok(pam_handle_t* pamh, int flags, int argc, const char** argv) {
    const bool prelimPhase = (flags & PAM_PRELIM_CHECK) != 0;
    return run(pamh, argc, argv, [prelimPhase](const Script& script) { return script.prelim == prelimPhase; });
}

PAM_EXTERN int pam_sm_setcred(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }
PAM_EXTERN int pam_sm_open_session(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }
PAM_EXTERN int pam_sm_close_session(pam_handle_t*, int, int, const char**) { return PAM_SUCCESS; }

}  // extern "C"
