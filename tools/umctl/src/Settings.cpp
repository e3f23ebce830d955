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

std::string text(const char* value) { return value ? value : ""; }

int settings() {
    usermanagement::UserDefinition& d = usermanagement::UserDefinition::GetUserDefinition();
    // Every setting goes into one object, in order; --json prints it as it is, and the plain
    // answer is one "name: value" line per member.
    Json answer;
    const auto print = [&answer](const std::string& name, auto value) { answer[name] = value; };
    print("maxUser", static_cast<long long>(d.getMaxUser()));
    print("baseUid", static_cast<long long>(d.getBaseUid()));
    // The shell depends on the profile; show the one of the first profile group.
    const unsigned int profile = systemutilities::LinuxUserSystem::kProfileGidFirst;
    print("userShell(" + std::to_string(profile) + ")", std::string(d.getUserShell(profile)));
    print("userHome", text(d.getUserHome()));
    print("userGecos", text(d.getUserGecos()));
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
    print("passwordFilePath", text(d.getPasswordFilePath()));
    print("passwordTmpFilePath", text(d.getPasswordTmpFilePath()));
    print("shadowFilePath", text(d.getShadowFilePath()));
    print("shadowTmpFilePath", text(d.getShadowTmpFilePath()));
    print("groupFilePath", text(d.getGroupFilePath()));
    print("groupTmpFilePath", text(d.getGroupTmpFilePath()));
    print("rootProfile", d.hasRootProfile());
    print("updateFileScript", text(d.getUpdateFileScript()));
    if (jsonOutput()) {
        emit(answer);
        return kOk;
    }
    for (const auto& member : answer.items())
        std::cout << member.key() << ": "
                  << (member.value().is_string() ? quoted(member.value().get<std::string>()) : member.value().dump())
                  << "\n";
    return kOk;
}

Run defineSettings(CLI::App&) { return settings; }

}  // namespace

std::vector<Command> settingsCommands() {
    return {{"settings", "the effective value of every setting of the installed configuration", "umctl settings",
             defineSettings}};
}

}  // namespace umctl
