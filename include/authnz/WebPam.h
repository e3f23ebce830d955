// One PAM transaction for a request of the web interface: a login with a password, the account
// check after it, and password changes.  The library converses with the PAM modules itself (no
// terminal): the passwords come from the request, and every text a module wants to show is
// collected in the object, to be classified or reported.
//
//     std::shared_ptr<WebPam> pam(WebPam::GetPAM(user, clientIp, WebPam::WebLogin));
//     pam->pamAuthentication(password);   // AuthenticationException 200 on a wrong password
//     pam->pamAccount();                  // AuthorizationException 301 when the password expired
//
// The privileged PAM calls run with effective root for their span on the calling thread; the
// thread's identity is restored after each call, failures included.  Every PAM call runs in the
// C locale on the calling thread (its own locale back afterwards), so the modules' texts, and
// the descriptions taken from them, are the English ones whatever locale the host's thread has.  An object belongs to one
// thread at a time and is never copied: it owns the PAM handle and the conversation records
// hold its address.  The library never holds the password-file lock around a PAM call (the
// modules take it themselves).
//
// The fields and their order are part of the binary interface (no virtual operations).
#pragma once

#include <security/pam_appl.h>

#include <cstdint>
#include <string>

#include <usermanagement/Export.h>

namespace authnz {

struct Options {
    // 0: pam_authenticate is called with PAM_DISALLOW_NULL_AUTHTOK; otherwise without flags.
    std::int32_t allowNullAuthtok;
    // 1: a login of user id 0 is refused before PAM is asked.
    std::int32_t denyRoot;
};

class TVC_UM_EXPORT WebPam {
public:
    // The service GetPAM asks for: the configured web-login or password service; any other
    // value gives the service "tnt".
    enum PamType : int {
        WebLogin = 0,
        PasswordCheck = 1,
    };

    // Which password the last answered prompt asked for.
    enum ConvState : int {
        Start = 0,
        CurrentPassword = 1,
        NewPassword = 2,
    };

    // pam_start with the storing conversation, then PAM_RHOST = ip.  AuthNZException 1
    // "InternalError" / "Init Pam failed" when PAM cannot start.
    WebPam(const char* service, const std::string& user, const std::string& ip, Options& options);
    // pam_end with the last PAM status.
    ~WebPam();
    WebPam(const WebPam&) = delete;
    WebPam& operator=(const WebPam&) = delete;

    // A new object for `user` (root refused, null tokens allowed); the caller owns it and puts
    // it into a std::shared_ptr at once.
    static WebPam* GetPAM(const std::string& user, const std::string& ip, PamType type);

    // Checks the password of the object's user.  AuthenticationException 200 "PAM:User not
    // found" (no PAM call) or "Invalid Credentials" with PAM's text; AuthNZException 0 for root
    // when the options refuse it.  The failure that makes the failed-login count reach the
    // limit logs "User account - locked <user>" once.
    void pamAuthentication(const char* password);
    // Whether the account may log in now: AuthorizationException 301 when PAM wants a new
    // password, AuthNZException 3 for any other refusal.
    void pamAccount();
    // Changes (or, on a judging service, tries) the password of the object's user.  Both
    // pointers non-null; an empty current password is allowed.  UpdatePasswordException 19 for
    // a password beyond the configured maximum (no PAM call), 18 for a wrong current password,
    // 22 to 39 for the password-quality rule the modules' texts name, 20 otherwise.  When
    // another process holds the password-file lock for more than a few seconds: UMSystemError-
    // Exception 11 instead of waiting for it (the modules would wait as long as it is held).
    void pamChauthtok(const char* oldPassword, const char* newPassword);

    // Enters `state` and returns how many answers in a row were given in it before: 0 for the
    // first prompt of its kind, more when PAM asks the same again.  Start resets the count.
    unsigned int setConvState(ConvState state);
    // Adds a module's text to the collected messages (comma-separated).
    void appendMsg(const char* text);
    // The texts the modules showed during the last call.
    const std::string& getPamMessages() const { return m_pamMessages; }

private:
    friend class WebPamConversation;

    std::string m_service;
    std::string m_pamUser;
    std::string m_rhost;
    // Borrowed; non-null only inside the call that set them.
    const char* m_password;
    const char* m_newPassword;
    pam_handle_t* m_pamHandle;
    Options m_options;
    int m_lastStatus;
    struct pam_conv m_passwdConv;
    struct pam_conv m_storeConv;
    struct pam_conv m_chauthtokConv;
    std::string m_pamMessages;
    ConvState m_convState;
    unsigned int m_convRepeat;
};

// The conversation functions of WebPam (the application data is the WebPam object).  Each takes
// 1 to PAM_MAX_NUM_MSG messages (else PAM_CONV_ERR), answers with strdup'ed copies and hands
// the responses to PAM only on success.
class TVC_UM_EXPORT WebPamConversation {
public:
    // Before any login call: keeps the last error or info text; a prompt is an error.
    static int tntPamStoreConv(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                               void* appdata_ptr);
    // During pamAuthentication: the password once per PAM call; texts collected.
    static int tntPamPasswdConv(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                                void* appdata_ptr);
    // During pamChauthtok: current and new password by the prompt's wording; the last error
    // text kept.
    static int tntPamChauthtokConv(int num_msg, const struct pam_message** msg, struct pam_response** resp,
                                   void* appdata_ptr);
};

// Whether `word` occurs in `text`, ignoring case; nothing is found in an empty text.
TVC_UM_EXPORT bool findStringIC(const std::string& text, const std::string& word);

}  // namespace authnz
