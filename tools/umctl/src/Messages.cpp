// What umctl tells its operator when a command fails.  One table gives the words for each
// situation, whichever command met it and whichever path of the library reported it; a second
// one says which situation each library exception (class and code) stands for.  The library's
// own text, written for its developers, never reaches the message: with --json it travels in
// the error object's "detail", next to the JSON answer the library gives a web client.
//
//     umctl: no such account: nosuch
//     {"error":"no such account: nosuch","code":5,"status":1,"detail":{"answer":{"classCode":0,"errorCode":5},"text":"..."}}
#include <iostream>
#include <string>

#include <authnz/AuthNZException.h>
#include <systemutilities/LinuxUserSystem.h>
#include <tarvicexception/TvcException.h>
#include <usermanagement/UMException.h>

#include "Command.h"

namespace umctl {

namespace {

using authnz::AuthenticationError;
using authnz::AuthNZError;
using authnz::AuthorizationError;
using usermanagement::PMError;
using usermanagement::UMError;
using usermanagement::UMSystemError;
using usermanagement::UpdatePasswordError;

struct Words {
    Situation situation;
    const char* text;
    bool namesSubject;  // ": NAME" follows, NAME being the account the command is about
};

// The operator's words for every situation.
constexpr Words kWords[] = {
    {Situation::NoSuchAccount, "no such account", true},
    {Situation::NoSuchGroup, "no such group", true},
    {Situation::AccountExists, "account already exists", true},
    {Situation::NoSuchProfile, "no such profile, role or group", false},
    {Situation::MainAccountUnremovable, "the main account cannot be removed", true},
    {Situation::MainAccountUndisable, "the main account cannot be disabled", true},
    {Situation::AccountRangeFull, "no free user id: the device holds as many accounts as it may", false},
    {Situation::BadName, "not a valid account name", true},
    {Situation::RemoveForbidden, "this account may not be removed", true},
    {Situation::MissingParameter, "a value the library needs is missing", false},
    {Situation::StaleAccount, "the account changed meanwhile; try again", true},
    {Situation::DuplicatedAccount, "the account is stored twice in the account files; remove the extra entry by hand",
     true},
    {Situation::HalfStoredAccount, "the account is in only one of passwd and shadow; repair the files by hand", true},
    {Situation::NothingInstalled, "no device configuration is installed", false},
    {Situation::AccountFiles, "the account files could not be read or written", false},
    {Situation::FilesLocked, "the account files are locked by another program; try again", false},
    {Situation::DatabaseLookup, "the account database could not answer", false},
    {Situation::TallyReset, "the failed-login count could not be reset", true},
    {Situation::IdentitySwitch, "could not act as the --as account", false},
    {Situation::PasswordNotStorable, "the password cannot be stored", true},
    {Situation::WrongPassword, "wrong password", true},
    // The login service gives one answer for all three, as it does to a web client.
    {Situation::LoginRefused, "login refused (wrong password, or the account is locked or disabled)", true},
    {Situation::PasswordTooLong, "password too long", false},
    {Situation::PasswordRules, "password refused by the password rules", false},
    {Situation::RootLogin, "root may not log in here", false},
    {Situation::LoginService, "the login service could not be started", false},
    {Situation::TokenRefused, "authentication token refused", false},
    {Situation::PasswordExpired, "password expired; it must be changed first", true},
    {Situation::NotAuthorized, "not authorized", false},
    {Situation::ConcurrentSession, "another session is already open", false},
    {Situation::SystemAccount, "not authorized to change a system account", true},
    {Situation::PasswordsDiffer, "the two passwords differ", false},
    {Situation::LibraryFailure, "the library failed", false},
};

// The library's exception classes, most derived first where one derives from another.
enum class Family { Account, System, Identity, Password, Session, Authentication, Authorization, Other };

struct Meaning {
    Family family;
    int code;
    Situation situation;
};

// What each library exception means.
constexpr Meaning kMeanings[] = {
    {Family::Account, UMError::UserAlreadyExists, Situation::AccountExists},
    {Family::Account, UMError::PasswordError, Situation::PasswordNotStorable},
    {Family::Account, UMError::RoleError, Situation::NoSuchProfile},
    {Family::Account, UMError::MainAccountUnremovable, Situation::MainAccountUnremovable},
    {Family::Account, UMError::MainAccountUndisable, Situation::MainAccountUndisable},
    {Family::Account, UMError::UserNotFound, Situation::NoSuchAccount},
    {Family::Account, UMError::MaxUsersReached, Situation::AccountRangeFull},
    {Family::Account, UMError::BadUserName, Situation::BadName},
    {Family::Account, UMError::RemoveUserForbidden, Situation::RemoveForbidden},
    {Family::Account, UMError::MissingParameter, Situation::MissingParameter},
    {Family::Account, UMError::StaleAccount, Situation::StaleAccount},
    {Family::Account, UMError::DuplicatedAccount, Situation::DuplicatedAccount},
    {Family::Account, UMError::HalfStoredAccount, Situation::HalfStoredAccount},
    {Family::Account, UMError::NothingInstalled, Situation::NothingInstalled},
    {Family::System, UMSystemError::FileContents, Situation::AccountFiles},
    {Family::System, UMSystemError::FilesLocked, Situation::FilesLocked},
    {Family::System, UMSystemError::DatabaseLookup, Situation::DatabaseLookup},
    {Family::System, UMSystemError::FileTransaction, Situation::AccountFiles},
    {Family::System, UMSystemError::TallyReset, Situation::TallyReset},
    {Family::Identity, PMError::UserNotFound, Situation::NoSuchAccount},
    {Family::Identity, PMError::UpdatePrivilegeFailed, Situation::IdentitySwitch},
    {Family::Identity, PMError::UpdateUserFailed, Situation::IdentitySwitch},
    {Family::Identity, PMError::MemoryAllocation, Situation::IdentitySwitch},
    {Family::Password, UpdatePasswordError::InvalidCredentials, Situation::WrongPassword},
    {Family::Password, UpdatePasswordError::NewPasswordTooLong, Situation::PasswordTooLong},
    {Family::Password, UpdatePasswordError::PasswordSecurityRules, Situation::PasswordRules},
    {Family::Password, UpdatePasswordError::InvalidNewPassword, Situation::PasswordRules},
    {Family::Session, AuthNZError::RootNotAllowed, Situation::RootLogin},
    {Family::Session, AuthNZError::InitPamFailed, Situation::LoginService},
    {Family::Session, AuthNZError::SetUserUidFailed, Situation::LoginService},
    {Family::Session, AuthNZError::InitError, Situation::LoginService},
    {Family::Session, AuthNZError::InvalidPAM, Situation::LoginService},
    {Family::Authentication, AuthenticationError::InvalidCredentials, Situation::LoginRefused},
    {Family::Authentication, AuthenticationError::NoToken, Situation::TokenRefused},
    {Family::Authentication, AuthenticationError::InvalidToken, Situation::TokenRefused},
    {Family::Authentication, AuthenticationError::StrongAuthenticationWrongPassword, Situation::LoginRefused},
    {Family::Authentication, AuthenticationError::TokenRefused, Situation::TokenRefused},
    {Family::Authorization, AuthorizationError::ExpiredCredentials, Situation::PasswordExpired},
    {Family::Authorization, AuthorizationError::NotAuthorized, Situation::NotAuthorized},
    {Family::Authorization, AuthorizationError::ConcurrentSession, Situation::ConcurrentSession},
    {Family::Authorization, AuthorizationError::StrongAuthenticationWrongPassword, Situation::WrongPassword},
    {Family::Authorization, AuthorizationError::SystemAccount, Situation::SystemAccount},
};

// The password-quality rules, by the code of the rule that refused a password.
constexpr std::pair<int, const char*> kRules[] = {
    {UpdatePasswordError::SameAsOld, "the same as the old one"},
    {UpdatePasswordError::Palindrome, "a palindrome"},
    {UpdatePasswordError::TooSimilar, "too similar to the old one"},
    {UpdatePasswordError::ContainsUserName, "it contains the account name"},
    {UpdatePasswordError::ContainsRealName, "it contains the real name"},
    {UpdatePasswordError::ForbiddenWords, "it contains a forbidden word"},
    {UpdatePasswordError::TooFewDigits, "too few digits"},
    {UpdatePasswordError::TooFewUppercase, "too few uppercase letters"},
    {UpdatePasswordError::TooFewLowercase, "too few lowercase letters"},
    {UpdatePasswordError::TooFewOthers, "too few characters other than letters and digits"},
    {UpdatePasswordError::TooShort, "too short"},
    {UpdatePasswordError::Rotated, "a rotated version of the old one"},
    {UpdatePasswordError::TooFewClasses, "too few kinds of characters"},
    {UpdatePasswordError::TooManyRepeats, "the same character too many times in a row"},
    {UpdatePasswordError::TooManyClassRepeats, "too many characters of one kind in a row"},
    {UpdatePasswordError::Monotonic, "a monotonic sequence"},
    {UpdatePasswordError::Dictionary, "based on a dictionary word"},
};

Family familyOf(const tarvicexception::TvcException& e) {
    if (dynamic_cast<const authnz::AuthorizationException*>(&e)) return Family::Authorization;
    if (dynamic_cast<const authnz::AuthenticationException*>(&e)) return Family::Authentication;
    if (dynamic_cast<const authnz::AuthNZException*>(&e)) return Family::Session;
    if (dynamic_cast<const usermanagement::UpdatePasswordException*>(&e)) return Family::Password;
    if (dynamic_cast<const usermanagement::PMException*>(&e)) return Family::Identity;
    if (dynamic_cast<const usermanagement::UMSystemErrorException*>(&e)) return Family::System;
    if (dynamic_cast<const usermanagement::UMException*>(&e)) return Family::Account;
    return Family::Other;
}

Situation situationOf(Family family, int code) {
    for (const Meaning& meaning : kMeanings)
        if (meaning.family == family && meaning.code == code) return meaning.situation;
    if (family == Family::Password && code >= UpdatePasswordError::FirstQualityRule &&
        code <= UpdatePasswordError::LastQualityRule)
        return Situation::PasswordRules;
    return Situation::LibraryFailure;
}

bool accountExists(const std::string& name) {
    unsigned int uid = 0, gid = 0;
    return systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &uid, &gid);
}

// The operator's message for `situation`; `code` refines a refusal by the password rules and
// names the error of a failure umctl has no words for.
std::string message(Situation situation, int code = -1) {
    std::string text;
    for (const Words& words : kWords) {
        if (words.situation != situation) continue;
        text = words.text;
        if (words.namesSubject && !subject().empty()) text += ": " + printable(subject());
    }
    if (situation == Situation::PasswordRules)
        for (const auto& [rule, reason] : kRules)
            if (rule == code) text = std::string("password refused: ") + reason;
    if (situation == Situation::LibraryFailure && code >= 0) text += " (error " + std::to_string(code) + ")";
    return text;
}

std::string& subjectName() {
    static std::string name;
    return name;
}

// The message on stderr; with --json, the error object on stdout.
int report(int status, const std::string& text, const Json& code, const Json& detail) {
    std::cerr << "umctl: " << text << "\n";
    if (jsonOutput()) emit(Json{{"error", text}, {"code", code}, {"status", status}, {"detail", detail}});
    return status;
}

// A line the library would log for `e` as an audit event (notice or warning, such as a
// refused login) goes to the log sink; its debug lines, the developer's view of the failure,
// do not.
void logIfAudited(tarvicexception::TvcException& e) {
    std::string text;
    usermanagement::LogCategory category{};
    int id = 0;
    usermanagement::LogSeverity severity = usermanagement::LogSeverity::Debug;
    e.buildLogMessage(text, category, id, severity);
    if (severity != usermanagement::LogSeverity::Debug) e.logCdsMessage();
}

}  // namespace

Failure::Failure(Situation situation, const std::string& subject)
    : std::runtime_error(subject), situation(situation), subject(subject) {}

void setSubject(const std::string& name) { subjectName() = name; }

const std::string& subject() { return subjectName(); }

int reportUsage(const std::string& text) { return report(kUsage, printable(text), nullptr, nullptr); }

int reportFailure() {
    try {
        throw;
    } catch (const UsageError& e) {
        return reportUsage(e.what());
    } catch (const Failure& e) {
        setSubject(e.subject);
        return report(kFailed, message(e.situation), nullptr, nullptr);
    } catch (tarvicexception::TvcException& e) {
        logIfAudited(e);
        Situation situation = situationOf(familyOf(e), e.getErrorId());
        // A login refused for a name the system does not know is an unknown account, as
        // everywhere else; the web client's answer (in the detail) stays the library's.
        if (situation == Situation::LoginRefused && !subject().empty() && !accountExists(subject()))
            situation = Situation::NoSuchAccount;
        Json detail{{"answer", Json::parse(e.getJsonAnswer(), nullptr, false)}, {"text", e.what()}};
        if (*e.getErrorDescription()) detail["description"] = e.getErrorDescription();
        if (*e.getError()) detail["error"] = e.getError();
        return report(kFailed, message(situation, e.getErrorId()), e.getErrorId(), detail);
    } catch (const std::exception& e) {
        return report(kFailed, printable(e.what()), nullptr, nullptr);
    }
}

}  // namespace umctl
