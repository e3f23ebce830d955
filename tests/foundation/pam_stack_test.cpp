// The sample device's PAM stack through real libpam: the "login" service counts failed logins
// with pam_tvc_tally.so, refuses a locked account whatever the password and is unlocked by
// pam_tally2.  (pam_tvc_script.so is exercised by the library's conversation tests.)
#include <gtest/gtest.h>

#include <fcntl.h>
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Descriptor.h"
#include "sampledevice/SampleDevice.h"
#include "support/Sandbox.h"

namespace {

using PamStack = tvc::test::SandboxTest;

// What a conversation was shown ("off:Password:", "info:a"...); prompts without echo are
// answered with `password`, others get a null response.
struct Talk {
    std::string password;
    std::vector<std::string> shown;
};

int converse(int count, const pam_message** messages, pam_response** responses, void* data) try {
    // The array and its texts go to libpam, which frees them; until then they are ours.
    const auto release = [count](pam_response* array) {
        for (int i = 0; i < count; ++i) std::free(array[i].resp);
        std::free(array);
    };
    std::unique_ptr<pam_response, decltype(release)> answers(
        static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response))), release);
    if (!answers) return PAM_BUF_ERR;
    auto& talk = *static_cast<Talk*>(data);
    for (int i = 0; i < count; ++i) {
        const int style = messages[i]->msg_style;
        static const char* const names[] = {"?", "off", "on", "error", "info"};
        talk.shown.push_back(std::string(names[style >= 1 && style <= 4 ? style : 0]) + ":" + messages[i]->msg);
        if (style == PAM_PROMPT_ECHO_OFF && (answers.get()[i].resp = strdup(talk.password.c_str())) == nullptr)
            return PAM_BUF_ERR;
    }
    *responses = answers.release();
    return PAM_SUCCESS;
} catch (...) {
    return PAM_BUF_ERR;
}

// One PAM transaction from a remote host, ended with the status of its last call.
class Transaction {
public:
    Transaction(const char* service, const char* user, Talk& talk) : conversation_{converse, &talk} {
        status_ = pam_start(service, user, &conversation_, &handle_);
        if (status_ == PAM_SUCCESS) status_ = pam_set_item(handle_, PAM_RHOST, "192.0.2.10");
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction() {
        if (handle_ != nullptr) pam_end(handle_, status_);
    }
    int status() const { return status_; }
    int authenticate() { return status_ = pam_authenticate(handle_, 0); }
    int checkAccount() { return status_ = pam_acct_mgmt(handle_, 0); }

private:
    pam_conv conversation_;
    pam_handle_t* handle_ = nullptr;
    int status_;
};

// The failure count of `uid`: the unsigned 16-bit at uid*64+54 of the tally file.
unsigned failures(unsigned uid) {
    const usermanagement::detail::Descriptor tally(open("/var/log/tallylog", O_RDONLY | O_CLOEXEC));
    std::uint16_t count = 0;
    if (tally) {
        EXPECT_GE(pread(tally.get(), &count, sizeof count, static_cast<off_t>(uid) * 64 + 54), 0);
    }
    return count;
}

std::string run(const std::string& command) {
    std::string output;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char buffer[256];
    for (std::size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) output.append(buffer, n);
    return output;
}

TEST_F(PamStack, LoginCountsFailuresRefusesALockedAccountAndPamTally2Unlocks) {
    ASSERT_EQ(access("/etc/tvc-pam/pam_tvc_tally.so", R_OK), 0) << "the sandbox was started without TVC_PAM_DIR";
    ASSERT_TRUE(unlink("/var/log/tallylog") == 0 || errno == ENOENT);
    const auto& viewer = tvc::sample::sampleDevice().account("viewer");
    const std::string right = viewer.password, wrong = "Wrong#2026";
    // password "" runs `pam_tally2 -r`; account -1: no account check.  Every attempt counts
    // until the account check resets it.
    const struct {
        const char* what;
        std::string password;
        int auth, account;
        unsigned failures;
    } steps[] = {
        {"first failure", wrong, PAM_AUTH_ERR, -1, 1},
        {"second failure", wrong, PAM_AUTH_ERR, -1, 2},
        {"the right password at the last attempt before the limit", right, PAM_SUCCESS, PAM_SUCCESS, 0},
        {"1 of 3", wrong, PAM_AUTH_ERR, -1, 1},
        {"2 of 3", wrong, PAM_AUTH_ERR, -1, 2},
        {"3 of 3: locked", wrong, PAM_AUTH_ERR, -1, 3},
        {"the right password, refused and counted", right, PAM_AUTH_ERR, -1, 4},
        {"unlocked by pam_tally2 -r", "", 0, -1, 0},
        {"the right password after the unlock", right, PAM_SUCCESS, PAM_SUCCESS, 0},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const unsigned before = failures(viewer.uid);
        if (step.password.empty()) {
            // The record as it was: the count, the time and where the latest failure came from.
            const std::string shown = run("pam_tally2 -f /var/log/tallylog -r -u viewer 2>&1");
            const std::string head = "Login           Failures Latest failure     From\nviewer                 4 ";
            EXPECT_EQ(shown.substr(0, head.size()), head);
            EXPECT_EQ(shown.substr(shown.size() - 13), "  192.0.2.10\n") << shown;
        } else {
            Talk talk{step.password, {}};
            Transaction login("login", "viewer", talk);
            ASSERT_EQ(login.status(), PAM_SUCCESS);
            EXPECT_EQ(login.authenticate(), step.auth);
            EXPECT_EQ(talk.shown, std::vector<std::string>{"off:Password: "});
            EXPECT_EQ(failures(viewer.uid), before + 1);
            if (step.account >= 0) {
                EXPECT_EQ(login.checkAccount(), step.account);
            }
        }
        EXPECT_EQ(failures(viewer.uid), step.failures);
    }
    struct stat st {};
    ASSERT_EQ(stat("/var/log/tallylog", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

}  // namespace
