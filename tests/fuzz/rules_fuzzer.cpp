// Password-rule classification (authnz/RuleMessages.h): any collected texts of a refused
// password change.
//
// The oracle: classify() gives one of the rules' codes or PasswordSecurityRules, and ruleOf()
// one of the rules' codes or 0, whatever the text; and every rule's own text, with a number
// taken from the input for "%d" and the input as the reason for "%s", with or without either
// module prefix, alone or behind other texts joined by ',', classifies to that rule's code.
// Run with long inputs (options/rules): the classification stays linear in the text's length.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "authnz/RuleMessages.h"

namespace {

using namespace authnz::detail;

bool known(int code) {
    for (const Rule& rule : kRules)
        if (rule.code == code) return true;
    return false;
}

// `pattern` with "%d" and "%s" filled in.
std::string filled(const char* pattern, const std::string& number, const std::string& reason) {
    std::string text;
    for (const char* c = pattern; *c != '\0'; ++c) {
        if (c[0] == '%' && (c[1] == 'd' || c[1] == 's')) {
            text += c[1] == 'd' ? number : reason;
            ++c;
        } else {
            text += *c;
        }
    }
    return text;
}

void expect(const std::string& message, int code) {
    if (classify(message) != code) {
        std::fprintf(stderr, "classified %d, expected %d: [%s]\n", classify(message), code, message.c_str());
        std::abort();  // a rule's own text not recognised
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const int code = classify(text);
    if (code != UpdatePasswordError::PasswordSecurityRules && !known(code)) std::abort();  // an unknown code
    const int rule = ruleOf(text);
    if (rule != 0 && !known(rule)) std::abort();

    // The rules' own texts.  The reason is the input up to its first NUL (the texts are C
    // strings) or "x" when that is empty; the number is the input's length.
    std::string reason = text.substr(0, text.find('\0'));
    if (reason.empty()) reason = "x";
    const std::string number = std::to_string(size);
    const Rule& chosen = kRules[size % (sizeof kRules / sizeof kRules[0])];
    const std::string own = filled(chosen.text, number, reason);
    expect(own, chosen.code);
    for (const char* prefix : kModulePrefixes) expect(prefix + own, chosen.code);
    // Behind a text that cannot begin a rule's text, as the conversation joins the texts (the
    // whole message is tried first: a reason ending in "check - " would make it the dictionary's).
    if (reason.find(',') == std::string::npos && reason.find("The password") == std::string::npos)
        expect(reason + "," + kModulePrefixes[size % 2] + own, chosen.code);
    return 0;
}
