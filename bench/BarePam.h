// The PAM transaction a login is built around, with nothing of the library: start, the client's
// address, authenticate, account check, end.  The benchmarks set a login through the library
// (tvc_bench) or through the web host (login_bench) next to it.
#pragma once

#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>

namespace tvc::bench {

// Answers every password prompt with the password; other messages get no answer.
inline int answerWithPassword(int count, const struct pam_message** messages, struct pam_response** responses,
                              void* password) {
    auto* replies = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (replies == nullptr) return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i)
        if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF || messages[i]->msg_style == PAM_PROMPT_ECHO_ON)
            replies[i].resp = strdup(static_cast<const char*>(password));
    *responses = replies;
    return PAM_SUCCESS;
}

// PAM_SUCCESS, or the status of the step that failed.
inline int barePamLogin(const char* service, const char* user, const char* password) {
    struct pam_conv conversation = {answerWithPassword, const_cast<char*>(password)};
    pam_handle_t* handle = nullptr;
    int status = pam_start(service, user, &conversation, &handle);
    if (status != PAM_SUCCESS) return status;
    status = pam_set_item(handle, PAM_RHOST, "127.0.0.1");
    if (status == PAM_SUCCESS) status = pam_authenticate(handle, 0);
    if (status == PAM_SUCCESS) status = pam_acct_mgmt(handle, 0);
    pam_end(handle, status);
    return status;
}

}  // namespace tvc::bench
