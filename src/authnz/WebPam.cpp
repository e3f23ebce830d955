// The PAM transaction of a web request: start, login, account check.  Password changes are in
// PasswordChange.cpp, the conversation functions in PamConversation.cpp.
//
// Every privileged PAM call runs inside an AsRoot scope: effective root for the call, the
// thread's identity back when the scope ends, exceptions included.  Every PAM call, pam_strerror
// included, runs inside a CLocale scope: the texts come in the C locale whatever the thread's.
// No delay is added after a wrong password: the web layer decides how to slow down repeated
// attempts.
#include <authnz/WebPam.h>

#include <cctype>
#include <string>

#include <authnz/AuthNZException.h>
#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/Utilities.h>
#include <usermanagement/UserDefinition.h>

#include "authnz/AsRoot.h"
#include "foundation/LogLine.h"

namespace authnz {

namespace {

constexpr const char* kDefaultService = "tnt";
// Session-layer message id of "account locked by this failure".
constexpr int kAccountLockedMessage = 9;

// The tally module's answer in the PAM environment: "1" when this attempt's failure is the one
// that took the failed-login count to the limit, "0" otherwise.
constexpr const char* kTallyLockedVariable = "TVC_TALLY_LOCKED";

// Whether the failure just returned by pam_authenticate locked the account.  The tally module
// decides it under its lock on the account's record and says so in the handle: a read of the
// count now would also see the attempts that other threads and processes made meanwhile, so
// concurrent failures logged the event twice or not at all.  A tally module that gives no
// answer leaves only that read: the count equal to the configured limit.  Nothing here may
// throw: the client's answer is "Invalid Credentials" either way.
bool lockedByThisFailure(pam_handle_t* handle, unsigned int uid) {
    if (const char* answer = pam_getenv(handle, kTallyLockedVariable)) return std::string(answer) == "1";
    try {
        int limit = -1;
        usermanagement::UserDefinition& definition = usermanagement::UserDefinition::GetUserDefinition();
        definition.getDBLockCount(limit);
        const detail::AsRoot root;  // the tally file is root's
        return limit > 0 && usermanagement::utilities::getLockCount(uid, definition.getTallyFilePath()) == limit;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

WebPam::WebPam(const char* service, const std::string& user, const std::string& ip, Options& options)
    : m_service(service),
      m_pamUser(user),
      m_rhost(ip),
      m_password(nullptr),
      m_newPassword(nullptr),
      m_pamHandle(nullptr),
      m_options(options),
      m_lastStatus(0),
      m_passwdConv{WebPamConversation::tntPamPasswdConv, this},
      m_storeConv{WebPamConversation::tntPamStoreConv, this},
      m_chauthtokConv{WebPamConversation::tntPamChauthtokConv, this},
      m_convState(Start),
      m_convRepeat(0) {
    const detail::CLocale cLocale;
    m_lastStatus = pam_start(m_service.c_str(), m_pamUser.c_str(), &m_storeConv, &m_pamHandle);
    if (m_lastStatus != PAM_SUCCESS || m_pamHandle == nullptr) {
        if (m_pamHandle != nullptr) pam_end(m_pamHandle, m_lastStatus);
        m_pamHandle = nullptr;
        throw AuthNZException(AuthNZError::InitPamFailed, "InternalError", "Init Pam failed", user, true);
    }
    m_lastStatus = pam_set_item(m_pamHandle, PAM_RHOST, m_rhost.c_str());
}

WebPam::~WebPam() {
    const detail::CLocale cLocale;
    if (m_pamHandle != nullptr) pam_end(m_pamHandle, m_lastStatus);
}

WebPam* WebPam::GetPAM(const std::string& user, const std::string& ip, PamType type) {
    Options options{1, 1};
    std::string service = kDefaultService;
    usermanagement::UserDefinition& definition = usermanagement::UserDefinition::GetUserDefinition();
    if (type == WebLogin) service = definition.getWebPam();
    if (type == PasswordCheck) service = definition.getPasswordPam();
    // The interface hands out a raw pointer; the caller wraps it into a shared_ptr at once.
    return new WebPam(service.c_str(), user, ip, options);
}

unsigned int WebPam::setConvState(ConvState state) {
    if (state == Start)
        m_convRepeat = 0;
    else if (state == CurrentPassword || state == NewPassword)
        m_convRepeat = m_convState == state ? m_convRepeat + 1 : 0;
    m_convState = state;
    return m_convRepeat;
}

void WebPam::appendMsg(const char* text) {
    if (!m_pamMessages.empty()) m_pamMessages += ",";
    m_pamMessages += text;
}

void WebPam::pamAuthentication(const char* password) {
    m_pamMessages.clear();
    detail::Borrowed borrowed(m_password, password);
    unsigned int uid = static_cast<unsigned int>(-1);
    if (!systemutilities::LinuxUserSystem::getUserIds(m_pamUser.c_str(), &uid, nullptr))
        throw AuthenticationException(AuthenticationError::InvalidCredentials, "PAM:User not found", "", m_pamUser,
                                      true);
    if (uid == 0 && m_options.denyRoot == 1)
        throw AuthNZException(AuthNZError::RootNotAllowed, "", "", m_pamUser, true);
    setConvState(Start);
    std::string reason;
    {
        // Not around what follows: the rights check and the log sink are the host's code.
        const detail::CLocale cLocale;
        m_lastStatus = pam_set_item(m_pamHandle, PAM_CONV, &m_passwdConv);
        if (m_lastStatus != PAM_SUCCESS)
            throw AuthNZException(AuthNZError::InitPamFailed, "InternalError", pam_strerror(m_pamHandle, m_lastStatus),
                                  m_pamUser, true);
        {
            const detail::AsRoot root;
            m_lastStatus =
                pam_authenticate(m_pamHandle, m_options.allowNullAuthtok == 0 ? PAM_DISALLOW_NULL_AUTHTOK : 0);
        }
        borrowed.end();
        if (m_lastStatus == PAM_SUCCESS) {
            const detail::AsRoot root;
            m_lastStatus = pam_setcred(m_pamHandle, PAM_ESTABLISH_CRED);
            return;
        }
        reason = pam_strerror(m_pamHandle, m_lastStatus);
    }
    if (lockedByThisFailure(m_pamHandle, uid))
        usermanagement::detail::logToSink(usermanagement::LogCategory::UserAccount, kAccountLockedMessage,
                                          usermanagement::LogSeverity::Warning, m_rhost,
                                          "User account - locked <" + m_pamUser + ">");
    throw AuthenticationException(AuthenticationError::InvalidCredentials, "Invalid Credentials", reason, m_pamUser,
                                  true);
}

void WebPam::pamAccount() {
    const detail::CLocale cLocale;
    {
        const detail::AsRoot root;
        m_lastStatus = pam_acct_mgmt(m_pamHandle, 0);
    }
    if (m_lastStatus == PAM_SUCCESS) return;
    const std::string description =
        "PAM: pamAccount " + std::to_string(m_lastStatus) + " " + pam_strerror(m_pamHandle, m_lastStatus);
    if (m_lastStatus == PAM_NEW_AUTHTOK_REQD)
        throw AuthorizationException(AuthorizationError::ExpiredCredentials, "ExpiredCredentials", description,
                                     m_pamUser, true);
    throw AuthNZException(AuthNZError::InitError, "InternalError", description, m_pamUser, true);
}

bool findStringIC(const std::string& text, const std::string& word) {
    if (text.empty()) return false;
    const auto upper = [](char c) { return std::toupper(static_cast<unsigned char>(c)); };
    for (std::size_t start = 0; start + word.size() <= text.size(); ++start) {
        std::size_t i = 0;
        while (i < word.size() && upper(text[start + i]) == upper(word[i])) ++i;
        if (i == word.size()) return true;
    }
    return false;
}

}  // namespace authnz
