// umctl settings: the effective value of every setting of the installed UserDefinition.
// Strings are quoted so that blanks stay visible (the default update script is "false "), with
// quotes, backslashes and control characters escaped as in the log line (quoted()).  With
// --json: one object, each setting a member of its own type.
#include <iostream>
#include <string>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/UserDefinition.h>

#include "Command.h"

namespace umctl {

namespace {

// With --json the settings are collected into one object, printed at the end.
Json g_answer;

void print(const char* name, const std::string& value) {
    if (jsonOutput())
        g_answer[name] = value;
    else
        std::cout << name << ": " << quoted(value) << "\n";
}
void print(const char* name, const char* value) { print(name, std::string(value ? value : "")); }
void print(const char* name, long long value) {
    if (jsonOutput())
        g_answer[name] = value;
    else
        std::cout << name << ": " << value << "\n";
}
void print(const char* name, bool value) {
    if (jsonOutput())
        g_answer[name] = value;
    else
        std::cout << name << ": " << (value ? "true" : "false") << "\n";
}

int settings() {
    usermanagement::UserDefinition& d = usermanagement::UserDefinition::GetUserDefinition();
    print("maxUser", static_cast<long long>(d.getMaxUser()));
    print("baseUid", static_cast<long long>(d.getBaseUid()));
    // The shell depends on the profile; show the one of the first profile group.
    const unsigned int profile = systemutilities::LinuxUserSystem::kProfileGidFirst;
    print(("userShell(" + std::to_string(profile) + ")").c_str(), d.getUserShell(profile));
    print("userHome", d.getUserHome());
    print("userGecos", d.getUserGecos());
    print("webPam", d.getWebPam());
    print("passwordPam", d.getPasswordPam());
    print("tallyFilePath", d.getTallyFilePath());
    print("userManagerRole", d.getUserManagerRole());
    print("selfAccountRole", d.getSelfAccountRole());

    // Callers preset these out-values; a provider that writes nothing leaves the presets.
    int lockCount = -1;
    d.getDBLockCount(lockCount);
    print("dbLockCount", static_cast<long long>(lockCount));
    int maxAge = -1, minAge = -1, inactivityDays = -1;
    bool exemptBaseUser = false;
    d.getDBPasswordExpirationAge(maxAge, minAge, inactivityDays, exemptBaseUser);
    print("passwordMaxAge", static_cast<long long>(maxAge));
    print("passwordMinAge", static_cast<long long>(minAge));
    // The third value as the policy applies it to every managed account.
    print("passwordInactivityDays", static_cast<long long>(inactivityDays));
    print("passwordAgeExemptsBaseUser", exemptBaseUser);

    print("dbDelayWrongCredential", static_cast<long long>(d.getDBDelayWrongCredential()));
    print("dbPasswordMaxLen", static_cast<long long>(d.getDBPasswordMaxLen()));
    print("passwordFilePath", d.getPasswordFilePath());
    print("passwordTmpFilePath", d.getPasswordTmpFilePath());
    print("shadowFilePath", d.getShadowFilePath());
    print("shadowTmpFilePath", d.getShadowTmpFilePath());
    print("groupFilePath", d.getGroupFilePath());
    print("groupTmpFilePath", d.getGroupTmpFilePath());
    print("rootProfile", d.hasRootProfile());
    print("updateFileScript", d.getUpdateFileScript());
    if (jsonOutput()) emit(g_answer);
    return kOk;
}

Run defineSettings(CLI::App&) { return settings; }

}  // namespace

std::vector<Command> settingsCommands() {
    return {{"settings", "the effective value of every setting of the installed configuration", "umctl settings",
             defineSettings}};
}

}  // namespace umctl
