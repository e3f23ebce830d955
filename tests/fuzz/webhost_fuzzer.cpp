// tvc-webd's router and JSON body handling, over HTTP: the real Server (started once, on a
// 127.0.0.1 port of this process, inside the device sandbox) gets each input as one raw request:
// method, path (percent-escapes, dot segments, query), headers (Content-Type, Origin, the
// session cookie and CSRF token of an account logged in at start through the real PAM stack)
// and a body, most often a JSON object with the fields the routes read.
// Oracle: no sanitizer report; every answer is a well-formed HTTP response whose status is in
// kStatuses, never 500 (a client's request is the client's error); every JSON answer parses;
// the server's identity holds; a refused request leaves the account files as they were.
// Between inputs the account files, the failed-login tally and the sessions are put back.
// Requests that make the library pause 10 s (a change to, or a managed uid's lookup of, an
// account that does not exist) are not sent; wrong passwords cost nothing here: the sample
// PAM stack does not delay and the host's login pause is set to 0.
#include <arpa/inet.h>
#include <strings.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "Server.h"

using webhost::Json;

namespace {

const char* const kFiles[] = {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/gshadow"};
const char* const kTally = "/var/log/tallylog";
const std::set<int> kStatuses = {200, 201, 204, 206, 304, 400, 401, 403, 404, 405, 409, 411, 413, 414, 415, 416};
const std::set<unsigned long> kExisting = {0, 33, 998, 2001, 2002, 2003, 10000, 10001, 10002, 10003, 10004, 65534};
const char* const kNames[] = {"admin", "operator", "viewer", "tech", "guest", "root", "plainuser", "www-data", "carol"};
const char* const kPasswords[] = {"Admin#2026", "Viewer#2026", "Guest#2026", "Fresh#Pass2027", "x", ""};
const char* const kFields[] = {"name", "password", "current", "newName", "profileId", "active", "mustChange", "x"};
const char* const kMethods[] = {"GET", "POST", "PATCH", "DELETE", "PUT", "HEAD", "OPTIONS"};
const char* const kPaths[] = {"/api/login", "/api/logout", "/api/session", "/api/me/password", "/api/profiles",
                              "/api/accounts", "/api/accounts/", "/api/audit", "/", "/app.js", "/api/"};
const char* const kUids[] = {"10000", "10001", "10002", "10004", "0", "33", "2002", "5", "010003", "4294967296"};
const char* const kTails[] = {"", "/unlock", "/password", "/x"};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Who {
    std::string cookie, csrf;
};
struct Reply {
    int status = -1;
    std::string headers, body;  // headers lower-cased
};

int g_port = 0;
webhost::Server* g_server = nullptr;
std::vector<std::string> g_pristine;
Who g_who[2];  // admin, viewer

// The final answer of `raw` (interim 1xx answers skipped); status -1 when it is malformed or
// incomplete.
Reply parse(std::string raw, bool head) {
    Reply reply;
    for (;;) {
        const std::size_t end = raw.find("\r\n\r\n");
        if (raw.size() < 13 || raw.compare(0, 9, "HTTP/1.1 ") != 0 || end == std::string::npos) return reply;
        reply.status = std::atoi(raw.substr(9, 3).c_str());
        reply.headers = raw.substr(0, end + 2);
        for (char& c : reply.headers) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        raw.erase(0, end + 4);
        if (reply.status >= 200) break;
    }
    reply.body = raw;
    const std::size_t length = reply.headers.find("\r\ncontent-length: ");
    const std::size_t expected =
        length == std::string::npos ? 0 : std::strtoul(reply.headers.c_str() + length + 18, nullptr, 10);
    // A HEAD answer has no body, unless the request was too malformed to be seen as HEAD.
    if (reply.body.size() != expected && !(head && reply.body.empty())) reply.status = -1;
    return reply;
}

// One connection, one request (Connection: close), the answer read until it is complete: a
// server that could not parse the request keeps the connection for its read timeout.  Status -1
// when none came.  Not half-closed: httplib drops a connection whose client shut its side.
Reply roundTrip(const std::string& request, bool head = false) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(g_port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval wait{8, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string answer;
    Reply reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        (void)!send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        char buffer[8192];
        // libFuzzer's timer signal interrupts a wait for the answer now and then.
        while (reply.status < 0) {
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            answer.append(buffer, static_cast<std::size_t>(n));
            reply = parse(answer, head);
        }
    }
    close(fd);
    if (reply.status < 0) std::fprintf(stderr, "webhost_fuzzer: no complete answer: %s\n", answer.c_str());
    return reply;
}

std::string request(const std::string& method, const std::string& path, const std::string& headers,
                    const std::string& body) {
    std::string text = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(g_port) +
                       "\r\nConnection: close\r\n" + headers;
    if (!body.empty() || method != "GET") text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

Who login(const char* name, const char* password) {
    const std::string body = Json{{"name", name}, {"password", password}}.dump();
    const Reply reply = roundTrip(request("POST", "/api/login", "Content-Type: application/json\r\n", body));
    const std::size_t at = reply.headers.find("set-cookie: tvc_session=");
    const Json json = Json::parse(reply.body, nullptr, false);
    if (reply.status != 200 || at == std::string::npos || !json.is_object()) {
        std::fprintf(stderr, "webhost_fuzzer: %s cannot log in: %d %s\n", name, reply.status, reply.body.c_str());
        std::exit(1);
    }
    const std::size_t start = at + 24;
    return {reply.headers.substr(start, reply.headers.find(';', start) - start), json.value("csrf", "")};
}

void ensureSessions() {
    static const char* const accounts[2][2] = {{"admin", "Admin#2026"}, {"viewer", "Viewer#2026"}};
    for (int i = 0; i < 2; ++i) {
        const std::string get = request("GET", "/api/session", "Cookie: tvc_session=" + g_who[i].cookie + "\r\n", "");
        if (g_who[i].cookie.empty() || roundTrip(get).status != 200)
            g_who[i] = login(accounts[i][0], accounts[i][1]);
    }
}

void start() {
    const char* pristine = std::getenv("TVC_SANDBOX_PRISTINE");
    if (std::getenv("TVC_SANDBOX") == nullptr || pristine == nullptr) {
        std::fprintf(stderr, "webhost_fuzzer: rewrites /etc: run it in the device sandbox (fuzz.sh)\n");
        std::exit(1);
    }
    if (readFile("/etc/pam.d/login").find("/etc/tvc-pam/") == std::string::npos) {
        std::fprintf(stderr, "webhost_fuzzer: needs the sample PAM stack: TVC_PAM_DIR=%s\n", TVC_FUZZ_PAM_DIR);
        std::exit(1);
    }
    for (const char* file : kFiles) g_pristine.push_back(readFile(std::string(pristine) + (file + 4)));
    (void)!truncate(kTally, 0);
    webhost::Settings settings;
    settings.listen = "127.0.0.1";
    settings.port = 0;
    settings.http = true;
    settings.threads = 2;
    settings.loginPauseSeconds = 0;
    g_server = new webhost::Server(settings);
    g_port = g_server->bind();
    std::thread([] { g_server->run(); }).detach();
    ensureSessions();
}

// Whether the request would reach a 10 s pause: the path as the server decodes it names an
// account route whose uid does not exist, and a change or a managed uid's lookup is asked.
bool pauses(const std::string& method, const std::string& path) {
    std::string decoded;
    const std::string part = path.substr(0, path.find('?'));
    for (std::size_t i = 0; i < part.size(); ++i) {
        const bool wide = part[i] == '%' && i + 5 < part.size() && part[i + 1] == 'u';
        if (part[i] == '%' && (wide || i + 2 < part.size())) {
            const std::string hex = part.substr(i + (wide ? 2 : 1), wide ? 4 : 2);
            if (hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
                const unsigned long code = std::strtoul(hex.c_str(), nullptr, 16);
                decoded += code < 0x80 ? static_cast<char>(code) : '?';
                i += wide ? 5 : 2;
                continue;
            }
        }
        decoded += part[i];
    }
    static const std::regex route("/api/accounts/([0-9]+)(/unlock|/password)?");
    std::smatch match;
    if (!std::regex_match(decoded, match, route) || match[1].length() > 10) return false;
    const unsigned long uid = std::stoul(match[1].str());
    const bool lookup = (method != "GET" && method != "HEAD") || (uid >= 10000 && uid < 10010);
    return lookup && kExisting.count(uid) == 0;
}

Json value(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0: return kNames[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kNames) - 1)];
        case 1: return kPasswords[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kPasswords) - 1)];
        case 2: return in.ConsumeRandomLengthString(24);
        case 3: return in.ConsumeIntegralInRange(-2, 12);
        case 4: return in.ConsumeIntegral<int64_t>();
        case 5: return in.ConsumeBool();
        case 6: return in.ConsumeIntegral<uint64_t>();
        default: return nullptr;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = (start(), true);
    (void)started;
    // The identity is checked after the answer is written, maybe after the client has read it:
    // a mismatch is seen at the latest by the next input.
    static std::string previous;
    if (g_server->identityMismatched()) {
        std::fprintf(stderr, "webhost_fuzzer: a worker kept an account's identity after:\n%s\n", previous.c_str());
        std::abort();
    }
    FuzzedDataProvider in(data, size);
    const auto flags = in.ConsumeIntegral<std::uint16_t>();
    const std::size_t m = in.ConsumeIntegralInRange<std::size_t>(0, std::size(kMethods));
    std::string method = m < std::size(kMethods) ? kMethods[m] : in.ConsumeRandomLengthString(8);
    std::string path;
    const std::size_t p = in.ConsumeIntegralInRange<std::size_t>(0, std::size(kPaths) + 1);
    if (p < std::size(kPaths)) path = kPaths[p];
    else if (p == std::size(kPaths))
        path = std::string("/api/accounts/") + kUids[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kUids) - 1)] +
               kTails[in.ConsumeIntegralInRange(0, 3)];
    else path = in.ConsumeRandomLengthString(64);
    if (flags & 1 && !path.empty()) {  // one byte percent-escaped
        const std::size_t at = in.ConsumeIntegralInRange<std::size_t>(0, path.size() - 1);
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(path[at]));
        path.replace(at, 1, hex);
    }
    if (flags & 2) path.insert(in.ConsumeIntegralInRange<std::size_t>(0, path.size()), in.ConsumeBool() ? "/.." : "/.");
    if (flags & 4) path += "?" + in.ConsumeRandomLengthString(16);
    // The request line as a client writes it: a space or a line break would split it (and add
    // headers of its own), and httplib answers a target holding raw bytes above 0x7f only after
    // its 5 s read timeout.  Such bytes of the path go escaped, which decodes to the same path.
    for (char& c : method) c = c > ' ' && c != 0x7f ? c : '_';
    std::string escaped;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", byte);
        escaped += byte > ' ' && byte < 0x7f ? std::string(1, c) : hex;
    }
    path = escaped;
    if (pauses(method, path)) return -1;

    std::string headers;
    const int session = (flags >> 3) & 3;  // none, admin, viewer, a token nobody holds
    if (session == 1 || session == 2) {
        headers += "Cookie: tvc_session=" + g_who[session - 1].cookie + "\r\n";
        if (!(flags & 32)) headers += "X-CSRF-Token: " + g_who[session - 1].csrf + "\r\n";
    } else if (session == 3) {
        headers += "Cookie: a=b; tvc_session=" + std::string(64, '0') + "\r\nX-CSRF-Token: " + std::string(64, '0') + "\r\n";
    }
    if (flags & 64) headers += in.ConsumeBool() ? "Origin: http://127.0.0.1:" + std::to_string(g_port) + "\r\n"
                                                : "Origin: http://elsewhere.example\r\n";
    static const char* const types[] = {"application/json", "Application/JSON ; charset=utf-8", "text/plain", ""};
    const char* type = types[(flags >> 7) & 3];
    if (*type) headers += std::string("Content-Type: ") + type + "\r\n";
    if (flags & 512) {  // one more header line of the input's choosing
        std::string line = in.ConsumeRandomLengthString(48);
        for (char& c : line) c = c == '\r' || c == '\n' ? ' ' : c;
        // A second Content-Length, or a line without a colon (an empty one ends the headers
        // before the Content-Length), would leave the server waiting for a body: not sent.
        if (strncasecmp(line.c_str(), "content-length", 14) == 0) return -1;
        if (line.find(':') != std::string::npos) headers += line + "\r\n";
    }
    std::string body;
    if (flags & 1024) {
        Json object = Json::object();
        for (int n = in.ConsumeIntegralInRange(0, 5); n > 0; --n)
            object[kFields[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kFields) - 1)]] = value(in);
        body = object.dump(-1, ' ', false, Json::error_handler_t::replace);
        if (flags & 2048) body.resize(in.ConsumeIntegralInRange<std::size_t>(0, body.size()));
    } else {
        body = in.ConsumeRemainingBytesAsString();
    }

    const bool head = method == "HEAD";
    previous = request(method, path, headers, body);
    const Reply reply = roundTrip(previous, head);
    const bool json = reply.headers.find("\r\ncontent-type: application/json") != std::string::npos &&
                      reply.headers.find("\r\ncontent-encoding:") == std::string::npos && !reply.body.empty();
    if (reply.status < 0 || !kStatuses.count(reply.status) || (json && Json::parse(reply.body, nullptr, false).is_discarded())) {
        // A malformed answer, a status outside the set (500 above all), or JSON that does not parse.
        std::fprintf(stderr, "%s %s\n%s\n-> %s%s\n", method.c_str(), path.c_str(), body.c_str(), reply.headers.c_str(),
                     reply.body.c_str());
        std::abort();
    }
    if (g_server->identityMismatched()) std::abort();  // a worker kept an account's identity
    bool changed = false;
    for (std::size_t i = 0; i < std::size(kFiles); ++i) {
        if (readFile(kFiles[i]) == g_pristine[i]) continue;
        changed = true;
        std::ofstream(kFiles[i], std::ios::binary | std::ios::trunc) << g_pristine[i];
    }
    if (changed && (reply.status < 200 || reply.status >= 300)) {
        // A refused request wrote the account files.
        std::fprintf(stderr, "%s %s\n%s\n-> %s%s\n", method.c_str(), path.c_str(), body.c_str(), reply.headers.c_str(),
                     reply.body.c_str());
        std::abort();
    }
    (void)!truncate(kTally, 0);
    if (changed || (reply.status < 300 && !head && method != "GET")) ensureSessions();
    return 0;
}
