// What the suites on the sample device share: its configuration without the pause after an
// unknown name, and the outcome of a call as text, for tables of expected answers.
#pragma once

#include <functional>
#include <string>

#include <tarvicexception/TvcException.h>

#include "sampledevice/SampleCatalogue.h"

namespace tvc::test {

struct QuickDefinition : tvc::sample::SampleDefinition {
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

// "ok", or "<code> <message>" of the library exception `call` throws.
inline std::string outcome(const std::function<void()>& call) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId()) + " " + e.what();
}

// "ok", or only the code.
inline std::string outcomeCode(const std::function<void()>& call) {
    const std::string text = outcome(call);
    return text.substr(0, text.find(' '));
}

}  // namespace tvc::test
