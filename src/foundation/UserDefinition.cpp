#include <usermanagement/UserDefinition.h>


#include "foundation/Provider.h"

namespace usermanagement {

namespace {
// The built-in configuration, in place from load time on.
UserDefinition g_defaultUserDefinition;
}  // namespace

UserDefinition* UserDefinition::m_ptrDefaultUserDefinition = &g_defaultUserDefinition;

unsigned int UserDefinition::getMaxUser() { return 5; }
unsigned int UserDefinition::getBaseUid() { return 10000; }
bool UserDefinition::isAValidUserName(const std::string&, unsigned int) { return true; }
const char* UserDefinition::getUserShell(unsigned int) { return "/bin/sh"; }
const char* UserDefinition::getUserHome() { return "/home/admin"; }
const char* UserDefinition::getUserGecos() { return "UI User"; }
std::string UserDefinition::getWebPam() { return "login"; }
std::string UserDefinition::getPasswordPam() { return "testpwd"; }
std::string UserDefinition::getTallyFilePath() { return "/var/log/tallylog"; }
std::string UserDefinition::getUserManagerRole() { return "role-user-manager"; }
std::string UserDefinition::getSelfAccountRole() { return "role-user-configure-self"; }

// checkRight, the built-in rights policy, lives with the session checks (src/authnz).

void UserDefinition::getDBLockCount(int& count) { count = -1; }
void UserDefinition::getDBPasswordExpirationAge(int&, int&, int&, bool&) {}
unsigned int UserDefinition::getDBDelayWrongCredential() { return 10; }
unsigned int UserDefinition::getDBPasswordMaxLen() { return 255; }
const char* UserDefinition::getPasswordFilePath() { return "/etc/passwd"; }
const char* UserDefinition::getPasswordTmpFilePath() { return "/etc/tmppassd"; }
const char* UserDefinition::getShadowFilePath() { return "/etc/shadow"; }
const char* UserDefinition::getShadowTmpFilePath() { return "/etc/tmpshadow"; }
const char* UserDefinition::getGroupFilePath() { return "/etc/group"; }
const char* UserDefinition::getGroupTmpFilePath() { return "/etc/tmpgroup"; }
bool UserDefinition::hasRootProfile() { return true; }
const char* UserDefinition::getUpdateFileScript() { return "false "; }

UserDefinition::~UserDefinition() = default;

void UserDefinition::setUserDefinition(UserDefinition& definition) { m_ptrDefaultUserDefinition = &definition; }

UserDefinition& UserDefinition::GetUserDefinition() {
    return detail::installedProvider(m_ptrDefaultUserDefinition, "No User Database");
}

}  // namespace usermanagement
