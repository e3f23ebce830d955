// The exceptions' log lines and JSON answers, and the audit events' log lines, with any text.
//
// Contract (Logger.h, TvcException.h, LogLine.h):
//   - the text the sink receives is one line: no byte 0x00-0x1f or 0x7f.  Control characters
//     of the names and messages are written \n, \t, \r or \xHH, a backslash \\; every other
//     byte, invalid UTF-8 included, is passed as it is;
//   - a debug-severity line ends with the details ",(" code ")" what() "," description (the
//     authorisation failures put ",for user:" user before them); the session and password
//     failures' lines hold " <" user ">"; an audit event's line is its text; the sink gets the
//     log context's ip; nothing reaches the sink when logging is off;
//   - the JSON answer is an object of exactly classCode (getRangeClass()) and errorCode
//     (getErrorId()), which nlohmann-json reads back: it carries no text, so no text can break it;
//   - what(), getErrorDescription() and getUser() give back the texts given, byte for byte.
// Inputs pick the class, the code (listed or not), the constructor and every text; also the
// user-name check's exception (any function name and name) and the audit events.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include <authnz/AuthNZException.h>
#include <umlog/Ctx.h>
#include <usermanagement/Logger.h>
#include <usermanagement/UMException.h>

#include "accounts/AuditEvent.h"
#include "files/UserName.h"

namespace {

using namespace usermanagement;
using tarvicexception::TvcException;

struct Sink : Logger {
    void logMessage(LogCategory c, int, int, const LogSeverity& s, std::string ip, int, std::string text) override {
        ++calls, category = c, severity = s, lastIp = std::move(ip), line = std::move(text);
    }
    int calls = 0;
    LogCategory category{};
    LogSeverity severity{};
    std::string lastIp, line;
};

Sink& sink() {
    static Sink s;
    s.setLogger(s);
    return s;
}

// The contract's rendering of text in a log line.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto b = static_cast<unsigned char>(c);
        char hex[5];
        std::snprintf(hex, sizeof hex, "\\x%02x", b);
        out += c == '\\'                 ? "\\\\"
               : c == '\n'                ? "\\n"
               : c == '\t'                ? "\\t"
               : c == '\r'                ? "\\r"
               : b < 0x20 || b == 0x7f ? hex
                                         : std::string(1, c);
    }
    return out;
}

void fail(const char* what, const std::string& line) {
    std::fprintf(stderr, "%s; line (%zu bytes): %s\n", what, line.size(), escaped(line).c_str());
    std::abort();
}

// A sink line: one line, from the log context's address.
void checkLine(const Sink& s, int callsBefore) {
    if (s.calls != callsBefore + 1) fail("not exactly one sink call", s.line);
    for (const char c : s.line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) fail("raw control character", s.line);
    if (s.lastIp != umlog::Ctx::getCtx().getIp()) fail("another ip", s.line);
}

// What a C-string accessor can give back of `text`: the part before its first NUL byte.
std::string cString(const std::string& text) { return text.substr(0, text.find('\0')); }

void checkException(TvcException& e, const std::string& fullMessage, const std::string& fullDescription,
                    const std::string& user, bool log, bool bracketed, bool authorization) {
    const std::string message = cString(fullMessage), description = cString(fullDescription);
    if (e.what() != message || e.getErrorDescription() != description || e.getUser() != user) {
        std::fprintf(stderr, "got %s / %s / %s\n", escaped(e.what()).c_str(), escaped(e.getErrorDescription()).c_str(),
                     escaped(e.getUser()).c_str());
        std::abort();  // an accessor does not give back the text it was given
    }
    Sink& s = sink();
    const int before = s.calls;
    e.logCdsMessage();
    if (!log) {
        if (s.calls != before) std::abort();  // logged with logging off
    } else {
        checkLine(s, before);
        if (s.severity == LogSeverity::Debug) {
            const std::string details = std::string(authorization ? ",for user:" + user : "") + ",(" +
                                        std::to_string(e.getErrorId()) + ")" + message + "," + description;
            const std::string end = escaped(details);
            if (s.line.size() < end.size() || s.line.compare(s.line.size() - end.size(), end.size(), end) != 0)
                fail("details missing", s.line);
        }
        if (bracketed && s.line.find(" <" + escaped(user) + ">") == std::string::npos) fail("user missing", s.line);
    }
    const nlohmann::json answer = nlohmann::json::parse(e.getJsonAnswer());  // throws (and fails) on bad JSON
    if (!answer.is_object() || answer.size() != 2 || answer.at("classCode") != e.getRangeClass() ||
        answer.at("errorCode") != e.getErrorId())
        std::abort();  // the answer does not read back as the exception's codes
}

constexpr int kCodes[] = {0,   1,   2,   3,   4,   5,   7,   9,   10,  11,  12,  13,  14,  17,  18,  21, 22,
                          39,  40,  41,  43,  44,  47,  200, 201, 202, 203, 204, 301, 302, 303, 304, 305};

template <class E>
std::unique_ptr<TvcException> make(int variant, int code, const std::string& message, const std::string& description,
                                   const std::string& user, bool log) {
    switch (variant) {
        case 0: return std::make_unique<E>(code, message, user, log);
        case 1: return std::make_unique<E>(code, message.c_str(), description, user, log);
        case 2: return std::make_unique<E>(code, message.c_str(), user, log);
        default: return std::make_unique<E>(code, user, log);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    umlog::Ctx& ctx = umlog::Ctx::getCtx();
    ctx.setIP(in.ConsumeRandomLengthString(64));
    ctx.setUsername(in.ConsumeRandomLengthString(64));
    const int kind = in.ConsumeIntegralInRange(0, 9);
    const int code = in.ConsumeBool() ? in.PickValueInArray(kCodes) : in.ConsumeIntegral<int>();
    const int variant = in.ConsumeIntegralInRange(0, 3);
    const bool log = in.ConsumeIntegralInRange(0, 7) != 0;
    std::string message = in.ConsumeRandomLengthString(256);
    std::string description = variant == 1 ? in.ConsumeRandomLengthString(256) : std::string();
    const std::string user = in.ConsumeRandomLengthString(64);
    if (variant == 3) message.clear();
    if (kind == 9) message = message.substr(0, message.find('\0'));  // the function name is a C string

    if (kind == 8) {  // an audit event with any text
        Sink& s = sink();
        const int before = s.calls;
        const std::string text = "User account - unlocked <" + user + ">" + message;
        detail::logAccountEvent(static_cast<detail::AuditEvent>(code), text);
        checkLine(s, before);
        if (s.line != escaped(text) || s.category != LogCategory::UserAccount || s.severity != LogSeverity::Notice)
            fail("audit line is not its text", s.line);
        return 0;
    }
    if (kind == 9) {  // the user-name check: the function name and the name are any text
        try {
            detail::checkUserName(user, message.c_str());
        } catch (UMException& e) {
            checkException(e, message + " error, bad user name", detail::userNameRefusal(user), ctx.getUsername(),
                           true, false, false);
        }
        return 0;
    }
    using Make = std::unique_ptr<TvcException> (*)(int, int, const std::string&, const std::string&,
                                                   const std::string&, bool);
    constexpr Make kMakers[] = {make<TvcException>, make<UMException>, make<UMSystemErrorException>,
                                make<PMException>, make<UpdatePasswordException>, make<authnz::AuthNZException>,
                                make<authnz::AuthenticationException>, make<authnz::AuthorizationException>};
    const std::unique_ptr<TvcException> e = kMakers[kind](variant, code, message, description, user, log);
    checkException(*e, message, description, user, log, kind >= 4, kind == 7);
    return 0;
}
