// Password changes, the password rules, the check of the caller's own password, and unlocking.
//
// A holder changing their own password goes through PAM, which verifies the old password and
// stores the new one; a reset for another account writes the shadow entry through a file
// transaction.  PAM sessions are made per call and owned by a shared_ptr for its span.
#include <usermanagement/User.h>

#include <memory>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <systemutilities/ScriptLauncher.h>
#include <umlog/Ctx.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "accounts/AuditEvent.h"
#include "files/EntryChecks.h"
#include "foundation/Raise.h"
#include "system/AsRoot.h"

namespace usermanagement {

namespace {

using authnz::WebPam;
using Session = std::shared_ptr<WebPam>;

Session session(const std::string& user, const std::string& ip, WebPam::PamType type) {
    return Session(WebPam::GetPAM(user, ip, type));
}

// AuthNZException 4: PAM gave no session.
void requireSession(const Session& pam, const std::string& user) {
    if (!pam)
        throw authnz::AuthNZException(authnz::AuthNZError::InvalidPAM, "Internal Error", "Pam null pointer", user,
                                      true);
}

// `text` for the inside of a double-quoted word of a shell command line.  There the shell
// still gives '$', '`', '"' and '\' a meaning (expansions, the end of the word); each gets a
// backslash, so the command receives `text` as written, and an ordinary name stays as it is.
// Nothing else needs escaping inside double quotes: blanks, ';', '|', '\'' and newlines are
// literal there.  A NUL byte would cut the command line short: refused.
std::string insideDoubleQuotes(const std::string& text) {
    if (text.find('\0') != std::string::npos)
        detail::raise<UMException>(UMError::BadUserName, "unLock error, bad user name: holds a NUL byte");
    std::string quoted;
    quoted.reserve(text.size());
    for (const char c : text) {
        if (c == '$' || c == '`' || c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted;
}

// A new password PAM is to store: what the shadow file could not take from the library is not
// handed to PAM either (a NUL byte would cut the password short there).
void checkNewPassword(const std::string& name, const std::string& password) {
    detail::checkPasswordToStore(name, password, PasswordType{false}, false, "updateEntryInShadowFile");
}

}  // namespace

void User::updatePassword(std::string& oldPassword, std::string& newPassword, const std::string& ip) {
    checkNewPassword(getUserName(), newPassword);
    const Session pam = session(getUserName(), ip, WebPam::WebLogin);
    requireSession(pam, getUserName());
    pam->pamChauthtok(oldPassword.c_str(), newPassword.c_str());
    detail::logAccountEvent(detail::PasswordChanged, "User account - password changed");
}

void User::updateAnyUserPassword(const std::string& name, const std::string& oldPassword,
                                 const std::string& newPassword, const std::string& ip) {
    checkNewPassword(name, newPassword);
    const Session pam = session(name, ip, WebPam::WebLogin);
    const User account(name);
    requireSession(pam, name);
    pam->pamChauthtok(oldPassword.c_str(), newPassword.c_str());
    detail::logAccountEvent(detail::PasswordChanged, "User account - password changed <" + name + ">");
}

void User::updateAnyUserPassword(const std::string& name, const std::string& newPassword, bool mustChange,
                                 const std::string& /*ip*/, bool checkPassword) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    config.checkRight(UserDefinition::UpdatePassword, this);
    User target(name);
    checkNewPassword(name, newPassword);
    if (checkPassword) checkPasswordStrenght(newPassword);

    LookUpdateShadow look;
    {
        const detail::AsRoot root;
        FileSystemUpdate shadow(config.getShadowFilePath(), config.getShadowTmpFilePath(), true);
        shadow.prepareSystemFiles();
        updateEntryInShadowFile(shadow, name, nullptr, &newPassword, PasswordType{false}, nullptr, &mustChange, look);
        target.unLock();
        shadow.finalyzeSystemFiles();
        logShadowdEvent(look);
    }
}

void User::checkPasswordStrenght(const std::string& password) {
    umlog::Ctx& context = umlog::Ctx::getCtx();
    const Session pam = session(context.getUsername(), context.getIp(), WebPam::PasswordCheck);
    requireSession(pam, getUserName());
    pam->pamChauthtok("", password.c_str());
}

bool User::checkCurrentUserPasswd(const std::string& password) {
    const User current;
    const Session pam = session(current.getUserName(), umlog::Ctx::getCtx().getIp(), WebPam::WebLogin);
    if (!pam) return false;
    try {
        pam->pamAuthentication(password.c_str());
        return true;
    } catch (authnz::AuthenticationException& refused) {
        // The caller only learns true or false, so the failed attempt is logged here.
        refused.logCdsMessage();
        return false;
    }
}

void User::unLock() {
    LookLockUpdate look;
    UserDefinition& config = UserDefinition::GetUserDefinition();
    config.checkRight(UserDefinition::UpdateUser, this);
    const std::string command = "pam_tally2 -f \"" + insideDoubleQuotes(config.getTallyFilePath()) + "\" -r -u \"" +
                                insideDoubleQuotes(m_userName) + "\"";
    {
        // As root, once the caller's rights were checked: the tally file is root's.  A thread
        // acting as a user manager (a web request) would otherwise read no count and run a
        // reset that cannot write the file: the account would stay locked.
        const detail::AsRoot root;
        retrieveLockState(look);
        // The reset runs whether or not the count reached the limit; its output and status
        // tell nothing the tally file does not.
        (void)systemutilities::ScriptLauncher::exec(command, true);
    }
    if (m_isLocked) look.unlocked = true;
    m_isLocked = false;
    logUserLockEvent(look);
}

}  // namespace usermanagement
