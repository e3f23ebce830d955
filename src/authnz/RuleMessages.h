// Which password-quality rule the texts of a refused password change name
// (PasswordChange.cpp): the modules' texts, collected in the C locale, compared with the rules'
// texts, so that the web client can tell its user which rule the new password broke.
#pragma once

#include <string>

#include <usermanagement/ErrorCodes.h>

namespace authnz::detail {

using usermanagement::UpdatePasswordError;

// One rule's text as libpwquality gives it in the C locale, whole: "%d" stands for the number
// it fills in, "%s" for the reason the dictionary check adds.  No text matches two entries, so
// their order does not matter.
struct Rule {
    const char* text;
    int code;
};

inline constexpr Rule kRules[] = {
    {"The password is the same as the old one", UpdatePasswordError::SameAsOld},
    {"The password differs with case changes only", UpdatePasswordError::SameAsOld},
    {"The password is a palindrome", UpdatePasswordError::Palindrome},
    {"The password is too similar to the old one", UpdatePasswordError::TooSimilar},
    {"The password contains the user name in some form", UpdatePasswordError::ContainsUserName},
    {"The password contains words from the real name of the user in some form", UpdatePasswordError::ContainsRealName},
    {"The password contains forbidden words in some form", UpdatePasswordError::ForbiddenWords},
    {"The password contains less than %d digits", UpdatePasswordError::TooFewDigits},
    {"The password contains too few digits", UpdatePasswordError::TooFewDigits},
    {"The password contains less than %d uppercase letters", UpdatePasswordError::TooFewUppercase},
    {"The password contains too few uppercase letters", UpdatePasswordError::TooFewUppercase},
    {"The password contains less than %d lowercase letters", UpdatePasswordError::TooFewLowercase},
    {"The password contains too few lowercase letters", UpdatePasswordError::TooFewLowercase},
    {"The password contains less than %d non-alphanumeric characters", UpdatePasswordError::TooFewOthers},
    {"The password contains too few non-alphanumeric characters", UpdatePasswordError::TooFewOthers},
    {"The password is shorter than %d characters", UpdatePasswordError::TooShort},
    {"The password is too short", UpdatePasswordError::TooShort},
    {"The password is just rotated old one", UpdatePasswordError::Rotated},
    {"The password contains less than %d character classes", UpdatePasswordError::TooFewClasses},
    {"The password does not contain enough character classes", UpdatePasswordError::TooFewClasses},
    {"The password contains more than %d same characters consecutively", UpdatePasswordError::TooManyRepeats},
    {"The password contains too many same characters consecutively", UpdatePasswordError::TooManyRepeats},
    {"The password contains more than %d characters of the same class consecutively",
     UpdatePasswordError::TooManyClassRepeats},
    {"The password contains too many characters of the same class consecutively",
     UpdatePasswordError::TooManyClassRepeats},
    {"The password contains monotonic sequence longer than %d characters", UpdatePasswordError::Monotonic},
    {"The password contains too long of a monotonic character sequence", UpdatePasswordError::Monotonic},
    {"The password fails the dictionary check", UpdatePasswordError::Dictionary},
    {"The password fails the dictionary check - %s", UpdatePasswordError::Dictionary},
};

// pam_pwquality shows the texts behind one of these (the second when root is only warned).
constexpr const char* kModulePrefixes[] = {"BAD PASSWORD: ", "bad password: "};

// Whether all of `text` is `pattern`: "%d" takes one or more digits, "%s" one or more characters.
bool matches(const char* pattern, const char* text);

// The code of the rule `message` names, or 0 when it is no rule's text.
int ruleOf(const std::string& message);

// The collected texts as one message, or else the first of its ','-separated parts (as
// appendMsg joins them) that is a rule's text; PasswordSecurityRules when none is.
int classify(const std::string& messages);

}  // namespace authnz::detail
