// The one place that turns failures into HTTP answers.
//
// A library failure answers with the library's own JSON answer (TvcException::getJsonAnswer(),
// re-serialised compact), under the status its class and code map to (statusOf).  A failure of
// the host itself (no session, bad CSRF token, malformed body...) answers {"error":"<short text>"}.
// Every body is dumped by nlohmann with invalid UTF-8 replaced: a name may hold any byte, the
// JSON never does.
#pragma once

#include <httplib.h>
#include <tarvicexception/TvcException.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace webhost {

using Json = nlohmann::json;

// A refusal by the host, with its status and short text.
struct HostError : std::runtime_error {
    HostError(int status, const std::string& text) : std::runtime_error(text), status(status), body{{"error", text}} {}
    // A refusal the host answers with a body of its choosing (the login's alike answer).
    static HostError withBody(int status, Json body) {
        HostError error(status, "refused");
        error.body = std::move(body);
        return error;
    }
    int status;
    Json body;
};

int statusOf(tarvicexception::TvcException& e);
// The library's answer of `e`, compact.
Json libraryAnswer(tarvicexception::TvcException& e);

std::string dump(const Json& value);
void answer(httplib::Response& res, int status, const Json& body);
void answerHostError(httplib::Response& res, int status, const std::string& text);
// Answers the exception being handled (call inside a catch block).  Library failures are
// logged to the audit sink first, with the thread's log context as it is at that moment.
void answerCurrentException(httplib::Response& res);

}  // namespace webhost
