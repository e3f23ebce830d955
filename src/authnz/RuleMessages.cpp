// The classification of the texts of a refused password change (RuleMessages.h).
#include "authnz/RuleMessages.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

namespace authnz::detail {

bool matches(const char* pattern, const char* text) {
    for (; *pattern != '\0'; ++pattern, ++text) {
        if (pattern[0] == '%' && pattern[1] == 'd') {
            if (!std::isdigit(static_cast<unsigned char>(*text))) return false;
            while (std::isdigit(static_cast<unsigned char>(text[1]))) ++text;
            ++pattern;
        } else if (pattern[0] == '%' && pattern[1] == 's') {
            for (const char* end = text + 1; *(end - 1) != '\0'; ++end)
                if (matches(pattern + 2, end)) return true;
            return false;
        } else if (*pattern != *text) {
            return false;
        }
    }
    return *text == '\0';
}

int ruleOf(const std::string& message) {
    const char* text = message.c_str();
    for (const char* prefix : kModulePrefixes)
        if (message.rfind(prefix, 0) == 0) text += std::strlen(prefix);
    for (const Rule& rule : kRules)
        if (matches(rule.text, text)) return rule.code;
    return 0;
}

int classify(const std::string& messages) {
    if (const int code = ruleOf(messages)) return code;
    for (std::size_t start = 0; start <= messages.size();) {
        const std::size_t end = std::min(messages.find(',', start), messages.size());
        if (const int code = ruleOf(messages.substr(start, end - start))) return code;
        start = end + 1;
    }
    return UpdatePasswordError::PasswordSecurityRules;
}

}  // namespace authnz::detail
