// The conversation functions WebPam installs.  Rules common to all three: message i is msg[i]
// (the Linux-PAM layout); 1 to PAM_MAX_NUM_MSG messages, else PAM_CONV_ERR; the responses are
// calloc'ed and every answer is a strdup'ed copy, both freed by PAM once handed over; on a
// failing return everything made so far is freed here and *resp stays null.
#include <authnz/WebPam.h>

#include <cstdlib>
#include <cstring>

namespace authnz {

namespace {

// The response array of one conversation call until it is handed to PAM.
class Responses {
public:
    explicit Responses(int count)
        : m_count(count), m_array(static_cast<pam_response*>(std::calloc(count, sizeof(pam_response)))) {}
    ~Responses() {
        if (m_array == nullptr) return;
        for (int i = 0; i < m_count; ++i) std::free(m_array[i].resp);
        std::free(m_array);
    }
    Responses(const Responses&) = delete;
    Responses& operator=(const Responses&) = delete;

    explicit operator bool() const { return m_array != nullptr; }
    // Response i becomes a copy of `text` with `code`; false (response left empty) when the
    // copy cannot be made.
    bool answer(int i, const char* text, int code) {
        char* copy = strdup(text != nullptr ? text : "");
        if (copy == nullptr) return false;
        m_array[i].resp = copy;
        m_array[i].resp_retcode = code;
        return true;
    }
    void setCode(int i, int code) { m_array[i].resp_retcode = code; }
    pam_response* release() {
        pam_response* array = m_array;
        m_array = nullptr;
        return array;
    }

private:
    int m_count;
    pam_response* m_array;
};

const char* textOf(const pam_message* message) { return message->msg != nullptr ? message->msg : ""; }

// The common frame: checks, the response array, and the hand-over on success.  `answerAll`
// (WebPam&, msg, Responses&) returns the call's result.
template <class AnswerAll>
int converse(int count, const pam_message** msg, pam_response** resp, void* data, AnswerAll answerAll) {
    if (resp == nullptr) return PAM_CONV_ERR;
    *resp = nullptr;
    if (count < 1 || count > PAM_MAX_NUM_MSG || msg == nullptr || data == nullptr) return PAM_CONV_ERR;
    for (int i = 0; i < count; ++i)
        if (msg[i] == nullptr) return PAM_CONV_ERR;
    Responses responses(count);
    if (!responses) return PAM_CONV_ERR;
    const int result = answerAll(*static_cast<WebPam*>(data), msg, responses);
    if (result == PAM_SUCCESS) *resp = responses.release();
    return result;
}

}  // namespace

int WebPamConversation::tntPamStoreConv(int num_msg, const pam_message** msg, pam_response** resp, void* appdata) {
    return converse(num_msg, msg, resp, appdata, [num_msg](WebPam& pam, const pam_message** messages, Responses&) {
        for (int i = 0; i < num_msg; ++i) {
            const int style = messages[i]->msg_style;
            // No prompt can be answered before a login call has given a password.
            if (style != PAM_ERROR_MSG && style != PAM_TEXT_INFO) return PAM_CONV_ERR;
            pam.m_pamMessages = textOf(messages[i]);
        }
        return PAM_SUCCESS;
    });
}

int WebPamConversation::tntPamPasswdConv(int num_msg, const pam_message** msg, pam_response** resp, void* appdata) {
    return converse(num_msg, msg, resp, appdata,
                    [num_msg](WebPam& pam, const pam_message** messages, Responses& responses) {
                        int result = PAM_AUTHTOK_ERR;
                        for (int i = 0; i < num_msg; ++i) {
                            const char* text = textOf(messages[i]);
                            switch (messages[i]->msg_style) {
                                case PAM_PROMPT_ECHO_OFF:
                                    // The password once per PAM call: a repeated prompt gets nothing.
                                    if (pam.setConvState(WebPam::CurrentPassword) == 0 && pam.m_password != nullptr &&
                                        responses.answer(i, pam.m_password, 0))
                                        result = PAM_SUCCESS;
                                    break;
                                case PAM_ERROR_MSG:
                                case PAM_TEXT_INFO:
                                    if (*text != '\0') pam.appendMsg(text);
                                    if (responses.answer(i, "", 0)) result = PAM_SUCCESS;
                                    break;
                                default:
                                    break;
                            }
                        }
                        return result;
                    });
}

int WebPamConversation::tntPamChauthtokConv(int num_msg, const pam_message** msg, pam_response** resp, void* appdata) {
    return converse(
        num_msg, msg, resp, appdata, [num_msg](WebPam& pam, const pam_message** messages, Responses& responses) {
            int result = PAM_CONV_ERR;
            // An answer with code `code`: the result follows it, unless the copy failed.
            const auto answer = [&](int i, const char* text, int code) {
                if (responses.answer(i, text, code)) result = code == 0 ? PAM_SUCCESS : code;
            };
            for (int i = 0; i < num_msg; ++i) {
                const char* text = textOf(messages[i]);
                switch (messages[i]->msg_style) {
                    case PAM_PROMPT_ECHO_OFF:
                        if (findStringIC(text, "current")) {
                            // The current password once per PAM call.
                            if (pam.setConvState(WebPam::CurrentPassword) == 0 && pam.m_password != nullptr) {
                                answer(i, pam.m_password, 0);
                            } else {
                                responses.setCode(i, PAM_AUTHTOK_ERR);
                                result = PAM_AUTHTOK_ERR;
                            }
                        } else if (findStringIC(text, "new")) {
                            // The new password as often as asked (typed again, retries).
                            pam.setConvState(WebPam::NewPassword);
                            if (pam.m_newPassword != nullptr) answer(i, pam.m_newPassword, 0);
                        }
                        break;
                    case PAM_PROMPT_ECHO_ON:
                        if (pam.m_password != nullptr) answer(i, pam.m_password, 0);
                        break;
                    case PAM_ERROR_MSG:
                        if (*text != '\0') pam.m_pamMessages = text;
                        answer(i, text, PAM_AUTHTOK_ERR);
                        break;
                    case PAM_TEXT_INFO:
                        answer(i, text, 0);
                        break;
                    default:
                        break;
                }
            }
            return result;
        });
}

}  // namespace authnz
