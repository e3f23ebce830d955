// The API of tvc-webd: one table of routes, each {method, path, right, body, handler}.
// Server.cpp dispatches every /api/ request through it, in this order: route, session, Origin,
// CSRF token, must-change restriction, body, then the handler on a thread acting as the
// session's account.  The handlers live in SessionRoutes.cpp and AccountRoutes.cpp.
#pragma once

#include <httplib.h>
#include <umlog/Ctx.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>

#include <optional>
#include <string>
#include <vector>

#include "Errors.h"
#include "Sessions.h"

namespace webhost {

using Action = usermanagement::UserDefinition::Action;

// What a handler gets: the request, the session (when the route needs one), the checked body,
// and for an account route the target's uid and the account object looked up while acting.
struct Call {
    const httplib::Request& req;
    httplib::Response& res;
    Sessions& sessions;
    bool https;
    std::optional<Session> session;
    Json body;
    unsigned int uid = 0;
    std::optional<usermanagement::User> target;
    // Set by a handler that renewed the session: its password print is taken afterwards, under
    // the server's identity.
    std::optional<std::string> renewedToken;
};

enum class Type { String, Integer, Boolean };
struct Field {
    const char* name;
    Type type;
    bool required;
};

struct Route {
    const char* method;
    const char* path;  // regex; an account route captures the uid
    bool needsSession;
    std::optional<Action> right;             // asked of the target on an account route, else with no target
    bool duringMustChange;                   // allowed to a session whose password must be changed
    std::optional<std::vector<Field>> body;  // JSON object with these fields; none: no body
    void (*handle)(Call&);
};

const std::vector<Route>& routes();

// Handlers.
void login(Call&);
void logout(Call&);
void sessionInfo(Call&);
void changeOwnPassword(Call&);
void profiles(Call&);
void listAccounts(Call&);
void showAccount(Call&);
void createAccount(Call&);
void updateAccount(Call&);
void unlockAccount(Call&);
void resetPassword(Call&);
void removeAccount(Call&);
void auditEvents(Call&);

// The session object {"name","uid","profile","mustChange","csrf","can":{...}}; asks the rights
// of the calling thread, so call it acting as the session's account.
Json sessionJson(const Session& session);
// Sets the session cookie (empty token: clears it).
void setSessionCookie(Call& call, const std::string& token);
// A name as a client sees it in the JSON: invalid UTF-8 replaced.
std::string asSeen(const std::string& name);

}  // namespace webhost

namespace webhost {
// SHA-256 of the account's stored password hash (never the hash itself); "" when it has none.
// Reading the hash takes the right to manage accounts: call it under the server's identity.
std::string passwordPrint(usermanagement::User& account);
}  // namespace webhost
