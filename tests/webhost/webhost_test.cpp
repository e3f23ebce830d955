// tvc-webd at the HTTP level: the server runs in this process on a loopback port, inside the
// device sandbox (main() in tests/support/Sandbox.cpp), and the tests talk to it with
// httplib::Client as the pages do.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include "Server.h"
#include "support/Sandbox.h"

using webhost::Json;

namespace {

const char* const kAccountFiles[] = {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/gshadow"};
const char* const kTally = "/var/log/tallylog";
const Json kNoSession = {{"error", "no session"}};
const Json kBadCsrf = {{"error", "bad CSRF token"}};
const Json kRefused = {{"classCode", 1}, {"errorCode", 302}};
const Json kStale = {{"classCode", 0}, {"errorCode", 41}};
const Json kLoginRefused = {{"classCode", 1}, {"errorCode", 200}};
const Json kMustChange = {{"classCode", 1}, {"errorCode", 301}};
const Json kSystemAccount = {{"classCode", 1}, {"errorCode", 305}};

struct Reply {
    int status = -1;
    std::string body;
    std::string cookie;  // the session token a Set-Cookie gave, if any
    httplib::Headers headers;
    Json json() const { return Json::parse(body, nullptr, false); }
};

// A logged-in client: its session cookie and CSRF token.
struct Who {
    std::string cookie, csrf;
};

class WebHost : public tvc::test::SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        if (access(kTally, F_OK) == 0) tvc::test::writeFile(kTally, "");  // no failed logins left over
        webhost::Settings settings;
        settings.listen = "127.0.0.1";
        settings.port = 0;
        settings.http = true;
        settings.threads = 3;  // few workers, so each serves many requests
        settings.loginPauseSeconds = 1;
        settings.staticDir = ::testing::TempDir();
        server = std::make_unique<webhost::Server>(settings);
        port = server->bind();
        serving = std::thread([this] { server->run(); });
    }

    void TearDown() override {
        if (!server) return;
        server->stop();
        serving.join();
        EXPECT_FALSE(server->identityMismatched());
    }

    Reply send(const std::string& method, const std::string& path, const Who* who = nullptr,
               const std::string& body = "", const std::map<std::string, std::string>& headers = {}) {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(60);  // an unknown name's login waits the configured pause
        httplib::Request req;
        req.method = method;
        req.path = path;
        req.body = body;
        if (!body.empty()) req.set_header("Content-Type", "application/json");
        if (who) req.set_header("Cookie", "tvc_session=" + who->cookie);
        if (who) req.set_header("X-CSRF-Token", who->csrf);
        for (const auto& [name, value] : headers) req.headers.erase(name), req.set_header(name, value);
        const httplib::Result result = client.send(req);
        if (!result) return {};
        Reply reply{result->status, result->body, "", result->headers};
        const std::string cookie = result->get_header_value("Set-Cookie");
        if (cookie.rfind("tvc_session=", 0) == 0) reply.cookie = cookie.substr(12, cookie.find(';') - 12);
        return reply;
    }

    Reply tryLogin(const std::string& name, const std::string& password) {
        return send("POST", "/api/login", nullptr, Json{{"name", name}, {"password", password}}.dump());
    }

    Who login(const std::string& name, const std::string& password) {
        const Reply reply = tryLogin(name, password);
        EXPECT_EQ(reply.status, 200) << name << ": " << reply.body;
        return {reply.cookie, reply.json().value("csrf", "")};
    }

    int sessionStatus(const Who& who) { return send("GET", "/api/session", &who).status; }

    std::unique_ptr<webhost::Server> server;
    std::thread serving;
    int port = 0;
};

std::vector<std::string> accountFiles() {
    std::vector<std::string> contents;
    for (const char* path : kAccountFiles) contents.push_back(tvc::test::readFile(path));
    return contents;
}

// Every state-changing route, refused each way that applies to it: nothing is written.
enum Kind { NoSession, WrongCsrf, Viewer, Admin };
struct Refusal {
    Kind kind;
    const char* method;
    const char* path;
    const char* body;
    int status;
    Json answer;
};

TEST_F(WebHost, StateChangingRoutesRefuseAndWriteNothing) {
    const std::string big(webhost::kBodyLimit + 1, 'x');
    const std::vector<Refusal> table = {
        {NoSession, "POST", "/api/logout", "", 401, kNoSession},
        {WrongCsrf, "POST", "/api/logout", "", 403, kBadCsrf},
        {NoSession, "POST", "/api/me/password", R"({"current":"Viewer#2026","password":"Fresh#Pass2027"})", 401, kNoSession},
        {WrongCsrf, "POST", "/api/me/password", R"({"current":"Viewer#2026","password":"Fresh#Pass2027"})", 403, kBadCsrf},
        {Viewer, "POST", "/api/me/password", R"({"current":1,"password":"Fresh#Pass2027"})", 400, {{"error", "wrong type: current"}}},
        {NoSession, "POST", "/api/accounts", R"({"name":"carol","profileId":2,"password":"Carol#Pass2027"})", 401, kNoSession},
        {WrongCsrf, "POST", "/api/accounts", R"({"name":"carol","profileId":2,"password":"Carol#Pass2027"})", 403, kBadCsrf},
        {Viewer, "POST", "/api/accounts", R"({"name":"carol","profileId":2,"password":"Carol#Pass2027"})", 403, kRefused},
        {Admin, "POST", "/api/accounts", R"({"name":"carol","profileId":2,)", 400, {{"error", "malformed JSON"}}},
        {Admin, "POST", "/api/accounts", R"({"name":"carol","profileId":2,"password":"x","mustchange":true})", 400, {{"error", "unknown field"}}},
        {Admin, "POST", "/api/accounts", R"({"name":"carol","profileId":18446744073709551615,"password":"Carol#Pass2027"})", 400, {{"error", "wrong type: profileId"}}},
        {NoSession, "POST", "/api/login", R"({"name":"admin\u0000x","password":"Admin#2026"})", 400, {{"error", "NUL byte in: name"}}},
        {NoSession, "PATCH", "/api/accounts/10004", R"({"name":"guest","newName":"guest2"})", 401, kNoSession},
        {WrongCsrf, "PATCH", "/api/accounts/10004", R"({"name":"guest","newName":"guest2"})", 403, kBadCsrf},
        {Viewer, "PATCH", "/api/accounts/10004", R"({"name":"guest","newName":"guest2"})", 403, kRefused},
        {Admin, "PATCH", "/api/accounts/10004", R"({"newName":"guest2"})", 400, {{"error", "missing field: name"}}},
        {Admin, "PATCH", "/api/accounts/10004", R"({"name":"tech","newName":"guest2"})", 409, kStale},
        {NoSession, "POST", "/api/accounts/10004/unlock", R"({"name":"guest"})", 401, kNoSession},
        {WrongCsrf, "POST", "/api/accounts/10004/unlock", R"({"name":"guest"})", 403, kBadCsrf},
        {Viewer, "POST", "/api/accounts/10004/unlock", R"({"name":"guest"})", 403, kRefused},
        {Admin, "POST", "/api/accounts/10004/unlock", R"(["guest"])", 400, {{"error", "malformed JSON"}}},
        {Admin, "POST", "/api/accounts/10004/unlock", R"({"name":"guest2"})", 409, kStale},
        {NoSession, "POST", "/api/accounts/10004/password", R"({"name":"guest","password":"Fresh#Pass2027"})", 401, kNoSession},
        {WrongCsrf, "POST", "/api/accounts/10004/password", R"({"name":"guest","password":"Fresh#Pass2027"})", 403, kBadCsrf},
        {Viewer, "POST", "/api/accounts/10004/password", R"({"name":"guest","password":"Fresh#Pass2027"})", 403, kRefused},
        {Admin, "POST", "/api/accounts/10004/password", R"({"name":"guest","password":"x","mustChange":"yes"})", 400, {{"error", "wrong type: mustChange"}}},
        {Admin, "POST", "/api/accounts/10004/password", R"({"name":"viewer","password":"Fresh#Pass2027"})", 409, kStale},
        {Viewer, "POST", "/api/accounts/10002/password", R"({"name":"viewer","password":"Fresh#Pass2027"})", 403, kRefused},
        {Admin, "POST", "/api/accounts/10000/password", R"({"name":"admin","password":"Fresh#Pass2027"})", 403, kRefused},
        {Admin, "POST", "/api/accounts/0/password", R"({"name":"root","password":"Fresh#Pass2027"})", 403, kSystemAccount},
        {Admin, "PATCH", "/api/accounts/2002", R"({"name":"plainuser","active":false})", 403, kSystemAccount},
        {Admin, "POST", "/api/accounts/2002/unlock", R"({"name":"plainuser"})", 403, kSystemAccount},
        {Admin, "DELETE", "/api/accounts/33", R"({"name":"www-data"})", 403, kSystemAccount},
        {NoSession, "DELETE", "/api/accounts/10004", R"({"name":"guest"})", 401, kNoSession},
        {WrongCsrf, "DELETE", "/api/accounts/10004", R"({"name":"guest"})", 403, kBadCsrf},
        {Viewer, "DELETE", "/api/accounts/10004", R"({"name":"guest"})", 403, kRefused},
        {Admin, "DELETE", "/api/accounts/10004", "", 415, {{"error", "content type must be application/json"}}},
        {Admin, "DELETE", "/api/accounts/10004", R"({"name":"Guest"})", 409, kStale},
        {Admin, "POST", "/api/accounts", big.c_str(), 413, {{"error", "request too large"}}},
        {Admin, "PUT", "/api/accounts/10004", R"({"name":"guest"})", 405, {{"error", "method not allowed"}}},
    };
    const std::vector<std::string> before = accountFiles();
    const Who admin = login("admin", "Admin#2026"), viewer = login("viewer", "Viewer#2026");
    const Who forged{admin.cookie, std::string(64, '0')};
    for (const Refusal& row : table) {
        const Who* who = row.kind == NoSession ? nullptr : row.kind == WrongCsrf ? &forged : row.kind == Viewer ? &viewer : &admin;
        const Reply reply = send(row.method, row.path, who, row.body);
        EXPECT_EQ(reply.status, row.status) << row.method << " " << row.path << " " << row.body;
        EXPECT_EQ(reply.json(), row.answer) << row.method << " " << row.path << " " << row.body;
    }
    EXPECT_EQ(accountFiles(), before);
    // The sessions are still good: no refusal above ended them.
    EXPECT_EQ(sessionStatus(admin), 200);
    EXPECT_EQ(sessionStatus(viewer), 200);
}

TEST_F(WebHost, LoginFromAnotherSiteIsRefused) {
    const Reply reply = send("POST", "/api/login", nullptr, R"({"name":"admin","password":"Admin#2026"})",
                             {{"Origin", "http://elsewhere.example"}});
    EXPECT_EQ(reply.status, 403);
    EXPECT_EQ(reply.json(), Json({{"error", "foreign origin"}}));
    EXPECT_EQ(send("POST", "/api/login", nullptr, R"({"name":"admin","password":"Admin#2026"})",
                   {{"Origin", "http://127.0.0.1:" + std::to_string(port)}, {"Host", "127.0.0.1:" + std::to_string(port)}})
                  .status,
              200);
}

// Every answer, the pages and the errors httplib makes included, carries the security headers;
// the API's never go to a cache.
TEST_F(WebHost, EveryAnswerCarriesTheSecurityHeaders) {
    tvc::test::writeFile(::testing::TempDir() + "/probe.js", "let probe;\n");
    const std::string big(webhost::kBodyLimit + 1, 'x');
    using Headers = std::map<std::string, std::string>;
    const std::vector<std::tuple<std::string, std::string, std::string, Headers, int, std::string>> table = {
        {"GET", "/probe.js", "", {}, 200, "text/javascript"},
        {"GET", "/probe.js%00.html", "", {}, 404, "application/json"},
        {"GET", "/../../etc/shadow", "", {}, 404, "application/json"},
        {"GET", "/api/session", "", {}, 401, "application/json"},
        {"GET", "/api/session%00", "", {}, 404, "application/json"},
        {"OPTIONS", "/api/accounts", "", {}, 405, "application/json"},
        {"POST", "/api/accounts", big, {}, 413, "application/json"},
        {"POST", "/api/login", "{}", {{"Content-Encoding", "gzip"}}, 415, "application/json"},
        {"POST", "/api/login", "{}", {{"Transfer-Encoding", "chunked"}}, 411, "application/json"},
    };
    for (const auto& [method, path, body, headers, status, type] : table) {
        const Reply reply = send(method, path, nullptr, body, headers);
        const auto header = [&](const char* name) {
            const auto it = reply.headers.find(name);
            return it == reply.headers.end() ? std::string() : it->second;
        };
        EXPECT_EQ(reply.status, status) << path;
        EXPECT_EQ(header("Content-Type"), type) << path;
        EXPECT_EQ(header("Content-Security-Policy") + header("X-Content-Type-Options") + header("X-Frame-Options"), "default-src 'self'nosniffDENY") << path;
        EXPECT_EQ(header("Cache-Control"), path.rfind("/api/", 0) == 0 ? "no-store" : "") << path;
    }
}

// A refused login holds its worker for the pause: a quarter of the workers (here one) log in at
// a time, and the others go on serving the sessions already open.
TEST_F(WebHost, LoginsInProgressAreBounded) {
    const Who admin = login("admin", "Admin#2026");
    std::thread refused([this] { EXPECT_EQ(tryLogin("guest", "wrong").status, 401); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(tryLogin("viewer", "Viewer#2026").status, 503);
    EXPECT_EQ(sessionStatus(admin), 200);
    refused.join();
    EXPECT_EQ(tryLogin("viewer", "Viewer#2026").status, 200);
}

// Plain HTTP only on loopback, and no second server shares a port (and its clients' passwords).
TEST_F(WebHost, ListensOnlyWhereAllowed) {
    webhost::Settings settings;
    settings.http = true;
    settings.listen = "0.0.0.0";
    EXPECT_THROW(webhost::Server{settings}, std::runtime_error);
    settings.listen = "127.0.0.1";
    settings.port = port;
    webhost::Server second(settings);
    EXPECT_THROW(second.bind(), std::runtime_error);
}

// The third wrong password locks the account and ends its sessions; then every refusal reads
// the same and takes the same pause, whatever its reason.
TEST_F(WebHost, LoginRefusalsAnswerAlike) {
    const Who tech = login("tech", "Tech#2026"), admin = login("admin", "Admin#2026");
    for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(tryLogin("tech", "wrong").status, 401);
    EXPECT_EQ(sessionStatus(tech), 401);
    const std::vector<std::pair<std::string, std::string>> refusals = {
        {"operator", "wrong"},  // wrong password
        {"nosuchuser", "x"},    // unknown name
        {"tech", "Tech#2026"},  // locked account, right password
    };
    for (const auto& [name, password] : refusals) {
        const auto started = std::chrono::steady_clock::now();
        const Reply reply = tryLogin(name, password);
        EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::seconds(1)) << name;
        EXPECT_EQ(reply.status, 401) << name;
        EXPECT_EQ(reply.body, kLoginRefused.dump()) << name;
        EXPECT_EQ(reply.cookie, "") << name;
    }
    // One "locked" line each, however many guesses follow.
    int locked = 0, ended = 0;
    for (const Json& event : send("GET", "/api/audit", &admin).json()) {
        const std::string text = event.value("text", "");
        locked += text.find("locked <tech>") != std::string::npos;
        ended += text.find("ended <tech>: account locked") != std::string::npos;
    }
    EXPECT_EQ(locked, 1);
    EXPECT_EQ(ended, 1);
}

// An account's logins in a loop do not grow the store: the least recently used session goes.
TEST(Sessions, AnAccountHoldsABoundedNumber) {
    webhost::Sessions sessions(std::chrono::seconds(900));
    const std::string first = sessions.create(10002, 10002, "viewer", false, "").token;
    const std::string other = sessions.create(10001, 10001, "operator", false, "").token;
    std::string last;
    for (std::size_t i = 0; i < webhost::kSessionsPerAccount; ++i) last = sessions.create(10002, 10002, "viewer", false, "").token;
    EXPECT_FALSE(sessions.find(first));
    EXPECT_TRUE(sessions.find(last));
    EXPECT_TRUE(sessions.find(other));
}

// A change of the account made through another session ends the account's sessions.
TEST_F(WebHost, ChangesOfTheAccountEndItsSessions) {
    const std::vector<std::tuple<std::string, std::string, std::string, std::string, std::string>> table = {
        {"operator", "Operator#2026", "PATCH", "/api/accounts/10001", R"({"name":"operator","newName":"operator2"})"},
        {"viewer", "Viewer#2026", "PATCH", "/api/accounts/10002", R"({"name":"viewer","active":false})"},
        {"tech", "Tech#2026", "PATCH", "/api/accounts/10003", R"({"name":"tech","profileId":2})"},
        {"guest", "Guest#2026", "POST", "/api/accounts/10004/password", R"({"name":"guest","password":"Fresh#Pass2027"})"},
    };
    const Who admin = login("admin", "Admin#2026");
    for (const auto& [name, password, method, path, body] : table) {
        const Who holder = login(name, password);
        ASSERT_EQ(sessionStatus(holder), 200);
        EXPECT_EQ(send(method, path, &admin, body).status, 200) << path << " " << body;
        EXPECT_EQ(sessionStatus(holder), 401) << body;
    }
    EXPECT_EQ(sessionStatus(admin), 200);
    // Changed outside the web host: the per-request check sees it.
    const Who guest = login("guest", "Fresh#Pass2027");
    tvc::test::restoreSampleDevice();
    EXPECT_EQ(sessionStatus(guest), 401);
}

// The holder's own change renews its session and ends its other sessions.
TEST_F(WebHost, OwnPasswordChangeRenewsTheSession) {
    const Who first = login("operator", "Operator#2026"), second = login("operator", "Operator#2026");
    const Reply changed = send("POST", "/api/me/password", &first,
                               R"({"current":"Operator#2026","password":"Fresh#Pass2027"})");
    ASSERT_EQ(changed.status, 200) << changed.body;
    const Who renewed{changed.cookie, changed.json().value("csrf", "")};
    EXPECT_NE(renewed.cookie, first.cookie);
    EXPECT_NE(renewed.csrf, first.csrf);
    EXPECT_EQ(sessionStatus(first), 401);
    EXPECT_EQ(sessionStatus(second), 401);
    EXPECT_EQ(sessionStatus(renewed), 200);
    EXPECT_EQ(send("POST", "/api/logout", &renewed).status, 204);
    EXPECT_EQ(sessionStatus(renewed), 401);
}

// An account created with a password to change gets a session that can only change it.
TEST_F(WebHost, ForcedPasswordChange) {
    const Who admin = login("admin", "Admin#2026");
    const Reply created = send("POST", "/api/accounts", &admin,
                               R"({"name":"carol","profileId":2,"password":"Carol#Pass2027","mustChange":true})");
    ASSERT_EQ(created.status, 201) << created.body;
    EXPECT_EQ(created.json().value("name", ""), "carol");
    const Reply logged = tryLogin("carol", "Carol#Pass2027");
    ASSERT_EQ(logged.status, 200) << logged.body;
    EXPECT_TRUE(logged.json().value("mustChange", false));
    const Who carol{logged.cookie, logged.json().value("csrf", "")};
    for (const char* path : {"/api/accounts", "/api/profiles", "/api/accounts/10000"}) {
        const Reply refused = send("GET", path, &carol);
        EXPECT_EQ(refused.status, 403) << path;
        EXPECT_EQ(refused.json(), kMustChange) << path;
    }
    EXPECT_EQ(sessionStatus(carol), 200);
    const Reply changed = send("POST", "/api/me/password", &carol, R"({"current":"Carol#Pass2027","password":"Fresh#Pass2027"})");
    ASSERT_EQ(changed.status, 200) << changed.body;
    EXPECT_FALSE(changed.json().value("mustChange", true));
    const Who renewed{changed.cookie, changed.json().value("csrf", "")};
    EXPECT_EQ(send("GET", "/api/accounts", &renewed).status, 200);
}

// A name may hold any byte; the JSON is valid UTF-8 all the same, and the name as the client
// saw it names the account.
TEST_F(WebHost, NamesOfAnyBytesGiveValidJson) {
    tvc::test::addLines("/etc/passwd", "bad\xffname:x:10005:10002::/home/admin:/bin/sh\n");
    tvc::test::addLines("/etc/shadow", "bad\xffname:$6$x$y:20454:0:99999:7:::\n");
    const Who admin = login("admin", "Admin#2026");
    const Json accounts = send("GET", "/api/accounts", &admin).json();
    ASSERT_TRUE(accounts.is_array());
    EXPECT_EQ(accounts.back().value("name", ""), "bad\xef\xbf\xbdname");
    EXPECT_EQ(send("PATCH", "/api/accounts/10005", &admin, R"({"name":"bad\ufffdname","active":false})").status, 200);
}

// Requests that fail inside the acting scope, then more on the same few workers: each worker is
// back to the server's identity after every request (TearDown checks the server saw no mismatch).
TEST_F(WebHost, IdentityIsTheServersAfterEveryRequest) {
    const Who admin = login("admin", "Admin#2026"), viewer = login("viewer", "Viewer#2026");
    const webhost::Identity mine = webhost::currentIdentity();
    for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(send("PATCH", "/api/accounts/10004", &viewer, R"({"name":"guest","active":false})").status, 403);
        EXPECT_EQ(send("DELETE", "/api/accounts/10000", &admin, R"({"name":"admin"})").status, 409);
        EXPECT_EQ(send("GET", "/api/accounts", &viewer).status, 200);
    }
    EXPECT_FALSE(server->identityMismatched());
    EXPECT_TRUE(webhost::currentIdentity() == mine);
    EXPECT_EQ(sessionStatus(admin), 200);
}

// Clients at once on the three workers, each logging in and out round after round: requests
// served at the same time share the session store, the audit ring and the account files, and
// each worker acts as its own session's account.  The ThreadSanitizer build runs it too.
TEST_F(WebHost, ClientsAtOnce) {
    struct Step {
        const char* method;
        const char* path;
        const char* body;
        int status;
    };
    const std::vector<std::tuple<std::string, std::string, std::vector<Step>>> table = {
        {"admin", "Admin#2026",
         {{"PATCH", "/api/accounts/10004", R"({"name":"guest","active":false})", 200},
          {"GET", "/api/audit", "", 200},
          {"PATCH", "/api/accounts/10004", R"({"name":"guest","active":true})", 200}}},
        {"operator", "Operator#2026",
         {{"GET", "/api/profiles", "", 200}, {"PATCH", "/api/accounts/10004", R"({"name":"guest","active":false})", 403}}},
        {"viewer", "Viewer#2026", {{"GET", "/api/accounts", "", 200}, {"GET", "/api/accounts/10004", "", 200}}},
        {"plainuser", "Plain#2026", {{"GET", "/api/session", "", 200}, {"GET", "/api/profiles", "", 200}}},
    };
    std::vector<std::thread> clients;
    for (const auto& [name, password, steps] : table) {
        clients.emplace_back([this, &name = name, &password = password, &steps = steps] {
            for (int round = 0; round < 5; ++round) {
                Reply logged = tryLogin(name, password);
                // One login at a time here (a quarter of three workers): the others are told to retry.
                for (int retry = 0; logged.status == 503 && retry < 500; ++retry) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                    logged = tryLogin(name, password);
                }
                ASSERT_EQ(logged.status, 200) << name << ": " << logged.body;
                const Who who{logged.cookie, logged.json().value("csrf", "")};
                for (const Step& step : steps)
                    EXPECT_EQ(send(step.method, step.path, &who, step.body).status, step.status)
                        << name << " " << step.method << " " << step.path;
                EXPECT_EQ(send("POST", "/api/logout", &who).status, 204) << name;
                EXPECT_EQ(sessionStatus(who), 401) << name;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_FALSE(server->identityMismatched());
}

}  // namespace
