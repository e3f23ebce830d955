#include "Server.h"

#include <sys/socket.h>
#include <arpa/inet.h>
#include <authnz/AuthNZException.h>
#include <sys/stat.h>
#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/UMException.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <thread>

#include "AuditLog.h"
#include "Certificate.h"

namespace webhost {

using usermanagement::User;
using usermanagement::UserDefinition;

std::string defaultStaticDir() {
    struct stat status {};
    if (stat(TVC_WEBHOST_SOURCE_STATIC, &status) == 0 && S_ISDIR(status.st_mode)) return TVC_WEBHOST_SOURCE_STATIC;
    return TVC_WEBHOST_INSTALLED_STATIC;
}

bool isLoopback(const std::string& address) {
    unsigned char bytes[16];
    if (inet_pton(AF_INET, address.c_str(), bytes) == 1) return bytes[0] == 127;
    if (inet_pton(AF_INET6, address.c_str(), bytes) == 1) {
        static const unsigned char loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        return std::equal(bytes, bytes + 16, loopback);
    }
    return address == "localhost";
}

void installDevice(const std::string& configFile, bool required) {
    static std::once_flag once;
    std::call_once(once, [&] {
        AuditLog::installed();
        tvc::deviceconfig::installDeviceConfiguration(configFile, required);
    });
}

namespace {

bool changesState(const std::string& method) { return method != "GET" && method != "HEAD"; }

std::string cookie(const httplib::Request& req, const std::string& name) {
    const std::string header = "; " + req.get_header_value("Cookie");
    const std::size_t at = header.find("; " + name + "=");
    if (at == std::string::npos) return "";
    const std::size_t start = at + name.size() + 3;
    return header.substr(start, header.find(';', start) - start);
}

// nlohmann compares an unsigned number with a signed one as signed: 2^64 - 1 would pass a
// plain range check as -1 and reach the library as profile -1.
bool isInt(const Json& value) {
    if (value.is_number_unsigned()) return value.get<std::uint64_t>() <= INT_MAX;
    return value.is_number_integer() && value >= INT_MIN && value <= INT_MAX;
}

// The body as the route's table entry describes it: a JSON object with exactly those fields,
// each of its type.  Anything else is refused before the library is asked: a misspelt field
// ("mustchange") must not silently leave an account without the forced change.
Json checkedBody(const httplib::Request& req, const Route& route) {
    if (!route.body) return Json::object();
    std::string type = req.get_header_value("Content-Type");
    type = type.substr(0, type.find(';'));
    for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    while (!type.empty() && type.back() == ' ') type.pop_back();
    if (type != "application/json") throw HostError(415, "content type must be application/json");
    Json body = Json::parse(req.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) throw HostError(400, "malformed JSON");
    for (const auto& item : body.items()) {
        bool known = false;
        for (const Field& field : *route.body) known = known || item.key() == field.name;
        if (!known) throw HostError(400, "unknown field");
    }
    for (const Field& field : *route.body) {
        if (!body.contains(field.name)) {
            if (field.required) throw HostError(400, std::string("missing field: ") + field.name);
            continue;
        }
        const Json& value = body[field.name];
        const bool fits = field.type == Type::String    ? value.is_string()
                          : field.type == Type::Boolean ? value.is_boolean()
                                                        : isInt(value);
        if (!fits) throw HostError(400, std::string("wrong type: ") + field.name);
        // A string goes on as a C string (PAM, the account files): "admin\u0000x" would log in
        // as admin under a session named otherwise.
        if (value.is_string() && value.get_ref<const std::string&>().find('\0') != std::string::npos)
            throw HostError(400, std::string("NUL byte in: ") + field.name);
    }
    return body;
}

struct CompiledRoute {
    const Route* route;
    std::regex path;
};

const std::vector<CompiledRoute>& compiledRoutes() {
    static const std::vector<CompiledRoute> compiled = [] {
        std::vector<CompiledRoute> list;
        for (const Route& route : routes()) list.push_back({&route, std::regex(route.path)});
        return list;
    }();
    return compiled;
}

}  // namespace

Server::Server(Settings settings) : m_settings(std::move(settings)), m_sessions(m_settings.idleTimeout) {
    installDevice(m_settings.configFile, m_settings.configRequired);
    compiledRoutes();
    serverAccountName();
    // Plain HTTP carries passwords and session cookies in the clear: only where no other host
    // can listen.
    if (m_settings.http && !isLoopback(m_settings.listen))
        throw std::runtime_error("--http serves only a loopback address, not " + m_settings.listen);
    if (m_settings.http) {
        m_http = std::make_unique<httplib::Server>();
    } else {
        if (m_settings.cert.empty() != m_settings.key.empty()) throw std::runtime_error("--cert and --key go together");
        if (m_settings.cert.empty()) ensureCertificate(m_settings.stateDir, m_settings.cert, m_settings.key);
        m_http = std::make_unique<httplib::SSLServer>(m_settings.cert.c_str(), m_settings.key.c_str());
    }
    if (!m_http->is_valid()) throw std::runtime_error("cannot load the certificate " + m_settings.cert);

    const std::size_t threads = m_settings.threads > 0 ? m_settings.threads : 1;
    m_http->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    m_http->set_payload_max_length(kBodyLimit);
    // A response is written as two sends (head, body); with Nagle's algorithm the second waits
    // for the client's delayed acknowledgement, some 40 ms per answer.
    m_http->set_tcp_nodelay(true);
    // The library's own socket set-up asks for SO_REUSEPORT, which would let a second process
    // bind the same port and take a share of the connections (and their passwords): only
    // SO_REUSEADDR here.  The listening socket is kept to raise the backlog after the bind.
    m_http->set_socket_options([this](int socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        m_listening = socket;
    });
    m_http->set_default_headers({{"Content-Security-Policy", "default-src 'self'"},
                                 {"X-Content-Type-Options", "nosniff"},
                                 {"X-Frame-Options", "DENY"},
                                 {"Referrer-Policy", "no-referrer"}});
    const auto api = [this](const httplib::Request& req, httplib::Response& res) { dispatch(req, res); };
    const char* pattern = "/api/.*";
    m_http->Get(pattern, api).Post(pattern, api).Patch(pattern, api).Delete(pattern, api).Put(pattern, api);
    m_http->Options(pattern, api);
    // Refused before httplib serves a file or reads a body:
    //  - a control byte in the path: httplib opens a static file by the decoded path as a C string
    //    but takes its type from the whole path ("/app.js%00.html" served the script as a page);
    //  - a compressed or chunked body: httplib holds the body limit against Content-Length only,
    //    and inflates or joins such a body in memory whatever its size (58 KB of gzip became
    //    60 MB), before any session is asked for.  The pages send neither.
    m_http->set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
        const bool control = std::any_of(req.path.begin(), req.path.end(),
                                         [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
        const int status = control                               ? 404
                           : req.has_header("Content-Encoding")  ? 415
                           : req.has_header("Transfer-Encoding") ? 411
                                                                 : 0;
        if (status == 0) return httplib::Server::HandlerResponse::Unhandled;
        if (req.path.rfind("/api/", 0) == 0) res.set_header("Cache-Control", "no-store");
        // The body is left unread: nothing more is taken from this connection.
        res.set_header("Connection", "close");
        answerHostError(res, status,
                        status == 404   ? "not found"
                        : status == 415 ? "compressed body"
                                        : "length required");
        return httplib::Server::HandlerResponse::Handled;
    });
    const std::string dir = m_settings.staticDir.empty() ? defaultStaticDir() : m_settings.staticDir;
    if (!m_http->set_mount_point("/", dir)) std::cerr << "tvc-webd: no pages: cannot serve " << dir << "\n";
    // Errors httplib answers itself (unknown path, body too large...) get a JSON body too.
    m_http->set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) return;
        if (req.path.rfind("/api/", 0) == 0) res.set_header("Cache-Control", "no-store");
        const char* text = res.status == 404 ? "not found" : res.status == 413 ? "request too large" : "bad request";
        answerHostError(res, res.status, text);
    });
    m_http->set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        answerHostError(res, 500, "internal error");
    });
    // Runs on the worker thread after every request it served, the static ones included.
    m_http->set_logger([this](const httplib::Request&, const httplib::Response&) { checkIdentity(); });
    // On the worker thread: httplib's own stop, which does not wait for the workers.
    onIdentityMismatch = [this](const Identity&) { m_http->stop(); };
}

int Server::bind() {
    const int port = m_settings.port >= 0 ? m_settings.port : m_settings.http ? 8080 : 443;
    const int bound = port == 0 ? m_http->bind_to_any_port(m_settings.listen)
                                : (m_http->bind_to_port(m_settings.listen, port) ? port : -1);
    if (bound <= 0) throw std::runtime_error("cannot listen on " + m_settings.listen + " port " + std::to_string(port));
    // httplib listens with a backlog of 5 and closes a keep-alive connection after 5 requests:
    // under load the queue overflows and a dropped connection attempt is retried by the client
    // only after a second or more.  listen() again on the bound socket only sets the backlog.
    if (m_listening >= 0 && ::listen(m_listening, kListenBacklog) != 0)
        throw std::runtime_error("cannot set the listen backlog on " + m_settings.listen);
    return bound;
}

bool Server::run() {
    m_running = true;
    const bool served = m_stopRequested || m_http->listen_after_bind();
    m_finished = true;
    return served;
}

// httplib's stop() does nothing until its accept loop has started: a stop that comes between
// bind() and that moment is repeated until run() returns.
void Server::stop() {
    m_stopRequested = true;
    for (;;) {
        m_http->stop();
        if (!m_running || m_finished) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Server::checkIdentity() {
    if (m_guard.holds()) return;
    m_mismatched = true;
    onIdentityMismatch(currentIdentity());
}

// The session of the request's cookie, after the per-request check of its account under the
// server's identity: the same uid, name and profile group, active, not locked, the same stored
// password.  Whatever changed it (this host, umctl, shadow-utils), the account's sessions end.
std::optional<Session> Server::checkedSession(const httplib::Request& req) {
    std::optional<Session> session = m_sessions.find(cookie(req, "tvc_session"));
    if (!session) return std::nullopt;
    std::string name;
    unsigned int gid = 0;
    bool same = systemutilities::LinuxUserSystem::getUserName(session->uid, name, gid) && name == session->name &&
                gid == session->gid;
    if (same) {
        User account(session->uid);
        account.updateState();
        same = account.isActive() && !account.isLocked() && passwordPrint(account) == session->passwordPrint;
    }
    if (same) return session;
    m_sessions.endAllOf(session->uid);
    logSessionEvent("Web sessions ended <" + session->name + ">: account changed");
    return std::nullopt;
}

void Server::dispatch(const httplib::Request& req, httplib::Response& res) {
    res.set_header("Cache-Control", "no-store");
    const bool https = !m_settings.http;
    const RequestContext context(req.remote_addr, https ? umlog::Ctx::Https : umlog::Ctx::Http);
    try {
        const Route* route = nullptr;
        std::smatch match;
        std::string allow;
        for (const CompiledRoute& entry : compiledRoutes()) {
            if (!std::regex_match(req.path, match, entry.path)) continue;
            const std::string method = req.method == "HEAD" ? "GET" : req.method;
            if (method == entry.route->method) {
                route = entry.route;
                break;
            }
            allow += std::string(allow.empty() ? "" : ", ") + entry.route->method;
        }
        if (route == nullptr && !allow.empty()) {
            res.set_header("Allow", allow);
            throw HostError(405, "method not allowed");
        }
        if (route == nullptr) throw HostError(404, "unknown route");
        Call call{req, res, m_sessions, https, std::nullopt, Json(), 0, std::nullopt, std::nullopt};
        call.loginPause = std::chrono::seconds(
            m_settings.loginPauseSeconds >= 0
                ? static_cast<unsigned int>(m_settings.loginPauseSeconds)
                : usermanagement::UserDefinition::GetUserDefinition().getDBDelayWrongCredential());
        if (match.size() > 1) {
            const unsigned long long uid = std::stoull(match[1].str().substr(0, 12));
            if (match[1].length() > 10 || uid > UINT_MAX) throw HostError(404, "unknown route");
            call.uid = static_cast<unsigned int>(uid);
        }
        const bool changes = changesState(req.method);
        // A browser names the page a request comes from: a page of another site may not log in
        // here (login CSRF) nor change anything, whatever cookie the browser would send along.
        const std::string origin = req.get_header_value("Origin");
        if (changes && !origin.empty() && origin != (https ? "https://" : "http://") + req.get_header_value("Host"))
            throw HostError(403, "foreign origin");
        if (route->needsSession) {
            call.session = checkedSession(req);
            if (!call.session) throw HostError(401, "no session");
            // The token comes from GET /api/session, which another site's page cannot read.
            if (changes && !Sessions::csrfMatches(*call.session, req.get_header_value("X-CSRF-Token")))
                throw HostError(403, "bad CSRF token");
            if (call.session->mustChange && !route->duringMustChange)
                throw authnz::AuthorizationException(authnz::AuthorizationError::ExpiredCredentials,
                                                     "ExpiredCredentials", "the password must be changed first",
                                                     call.session->name, false);
        }
        call.body = checkedBody(req, *route);
        // A refused login holds its worker for the login pause: without a bound, a stream of
        // wrong passwords would hold every worker and shut out the sessions already open.
        // The refusal says nothing about any account.
        const LoginSlot slot(route->handle == login ? &m_loginsInFlight : nullptr, loginLimit());
        if (!slot.taken()) {
            res.set_header("Retry-After", "1");
            throw HostError(503, "too many logins at once");
        }
        serve(*route, call);
        if (call.renewedToken) {
            User account(call.session->uid);
            m_sessions.setPasswordPrint(*call.renewedToken, passwordPrint(account));
        }
    } catch (...) {
        answerCurrentException(res);
    }
}

// The handler on a thread acting as the session's account (the login as the server).  A
// failure is answered inside the scope, so that its audit line names the acting account; the
// scope then puts the server's identity back.
void Server::serve(const Route& route, Call& call) {
    std::optional<ActingAs> acting;
    if (call.session) acting.emplace(call.session->name, call.session->uid);
    try {
        UserDefinition& definition = UserDefinition::GetUserDefinition();
        if (std::string(route.path).find('(') != std::string::npos) {
            // The API shows the managed accounts only.  A change of another account goes on to
            // the library, whose range guard refuses it (305) and logs who tried it on whom.
            const bool managed =
                call.uid >= definition.getBaseUid() && call.uid - definition.getBaseUid() < definition.getMaxUser();
            if (!managed && !changesState(call.req.method))
                throw usermanagement::UMException(usermanagement::UMError::UserNotFound, "no such managed account",
                                                  call.session->name, true);
            User& target = call.target.emplace(call.uid);
            if (route.right) definition.checkRight(*route.right, &target);
            // The client names the account it means: a uid that now carries another name (a
            // rename, or a new account that reused the uid of a removed one) is not touched.
            if (changesState(call.req.method) && asSeen(target.getUserName()) != call.body["name"].get<std::string>())
                throw usermanagement::UMException(usermanagement::UMError::StaleAccount,
                                                  "the account no longer carries the name the client sent",
                                                  call.session->name, true);
        } else if (route.right) {
            definition.checkRight(*route.right, nullptr);
        }
        route.handle(call);
    } catch (...) {
        answerCurrentException(call.res);
    }
}

}  // namespace webhost
