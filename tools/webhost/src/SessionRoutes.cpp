// POST /api/login, POST /api/logout, GET /api/session, POST /api/me/password.
#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <systemutilities/LinuxUserSystem.h>
#include <unistd.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/Utilities.h>

#include <chrono>
#include <memory>
#include <thread>

#include "Acting.h"
#include "AuditLog.h"
#include "Routes.h"

namespace webhost {

using usermanagement::User;
using usermanagement::UserDefinition;

std::string passwordPrint(User& account) {
    const std::string hash = account.getEncryptedPassword();
    return hash.empty() ? "" : sha256Hex(hash);
}

std::string asSeen(const std::string& name) { return Json::parse(dump(Json(name))).get<std::string>(); }

void setSessionCookie(Call& call, const std::string& token) {
    std::string cookie = "tvc_session=" + token + "; HttpOnly; SameSite=Strict; Path=/";
    if (token.empty()) cookie += "; Max-Age=0";
    if (call.https) cookie += "; Secure";
    call.res.set_header("Set-Cookie", cookie);
}

Json sessionJson(const Session& session) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    const auto can = [&](Action action) {
        try {
            definition.checkRight(action, nullptr);
            return true;
        } catch (const authnz::AuthorizationException&) {
            return false;
        }
    };
    const std::string profile =
        usermanagement::ProfileDefinition::GetProfileDefinition().getProfile(session.gid).getName();
    return {{"name", session.name},
            {"uid", session.uid},
            {"profile", profile},
            {"mustChange", session.mustChange},
            {"csrf", session.csrf},
            {"can", {{"create", can(UserDefinition::CreateUser)}, {"manage", can(UserDefinition::ManageUsers)}}}};
}

namespace {

bool lockedNow(unsigned int uid) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    int limit = -1;
    definition.getDBLockCount(limit);
    return limit > 0 && usermanagement::utilities::getLockCount(uid, definition.getTallyFilePath()) >= limit;
}

// Every refused login answers alike, whatever the reason (wrong password, unknown name, locked
// or disabled account): the same status and the same body, the library's answer for invalid
// credentials.  A client learns nothing about which names exist or which accounts are locked;
// the audit trail, which the library's exception is logged to, tells the cases apart.  Alike in
// time too: every refusal is answered the same pause after the login began (by default the pause
// the library makes on every lookup of an unknown name), whether PAM refused at once (a wrong
// password with a module that does not delay) or the name had to be looked for; otherwise the
// answer's delay would tell which names exist, and the login would be a cheaper way of trying
// names than the account routes.  It also slows password guessing on every account alike.
[[noreturn]] void refuse(Call& call, const std::string& name, tarvicexception::TvcException& e) {
    e.logCdsMessage();
    unsigned int uid = 0;
    // The failure that locked the account (or an attempt on a locked one) ends its sessions.
    // Logged only when there were some: every guess at a locked account would otherwise add
    // an "account locked" line of its own to the audit trail.
    if (systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &uid, nullptr) && lockedNow(uid) &&
        call.sessions.endAllOf(uid) > 0)
        logSessionEvent("Web sessions ended <" + name + ">: account locked");
    std::this_thread::sleep_until(call.started + call.loginPause);
    authnz::AuthenticationException refused(authnz::AuthenticationError::InvalidCredentials, "Invalid Credentials",
                                            name, false);
    throw HostError::withBody(401, libraryAnswer(refused));
}

}  // namespace

// Runs under the server's identity: the library's web-login PAM service with the client's address.
void login(Call& call) {
    const std::string name = call.body["name"];
    const std::string password = call.body["password"];
    const std::shared_ptr<authnz::WebPam> pam(
        authnz::WebPam::GetPAM(name, umlog::Ctx::getCtx().getIp(), authnz::WebPam::WebLogin));
    bool mustChange = false;
    try {
        pam->pamAuthentication(password.c_str());
        try {
            pam->pamAccount();
        } catch (authnz::AuthorizationException& e) {
            if (e.getErrorId() != authnz::AuthorizationError::ExpiredCredentials) throw;
            e.logCdsMessage();
            mustChange = true;
        }
    } catch (authnz::AuthNZException& e) {
        // PAM that cannot start is the server's failure, not the client's.
        const int code = e.getErrorId();
        if (code == authnz::AuthNZError::InitPamFailed || code == authnz::AuthNZError::SetUserUidFailed ||
            code == authnz::AuthNZError::InvalidPAM)
            throw;
        refuse(call, name, e);
    }
    unsigned int uid = 0, gid = 0;
    if (!systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &uid, &gid))
        throw HostError(500, "account vanished during login");
    User account(uid);
    const Session session = call.sessions.create(uid, gid, name, mustChange, passwordPrint(account));
    logSessionEvent("Web session - opened <" + name + ">" + (mustChange ? ": password must change" : ""));
    setSessionCookie(call, session.token);
    const ActingAs acting(name, uid);
    answer(call.res, 200, sessionJson(session));
}

void logout(Call& call) {
    call.sessions.end(call.session->token);
    logSessionEvent("Web session - closed <" + call.session->name + ">");
    setSessionCookie(call, "");
    call.res.status = 204;
}

void sessionInfo(Call& call) { answer(call.res, 200, sessionJson(*call.session)); }

// The holder's own change: the current password is the authority (the library checks it as a
// login, so a wrong one counts towards the lock).  The other sessions of the account end; this
// one is renewed, so a token seen before the change is worth nothing after it.
void changeOwnPassword(Call& call) {
    User holder(call.session->uid);
    std::string current = call.body["current"];
    std::string next = call.body["password"];
    holder.updatePassword(current, next, umlog::Ctx::getCtx().getIp());
    call.sessions.endAllOf(call.session->uid, call.session->token);
    const std::optional<Session> renewed = call.sessions.renew(call.session->token, false);
    if (!renewed) throw HostError(401, "no session");
    call.renewedToken = renewed->token;
    logSessionEvent("Web session - renewed after a password change <" + renewed->name + ">");
    setSessionCookie(call, renewed->token);
    answer(call.res, 200, sessionJson(*renewed));
}

}  // namespace webhost
