// The configuration provider: the built-in settings hosts rely on, and host overrides.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

using usermanagement::UMException;
using usermanagement::UserDefinition;

namespace {

template <class... T>
std::string joined(const T&... values) {
    std::ostringstream out;
    ((out << values << '|'), ...);
    return out.str();
}

// Puts the installed provider back after every test.
class UserDefinitionTest : public ::testing::Test {
protected:
    void TearDown() override { UserDefinition::m_ptrDefaultUserDefinition = saved_; }
    UserDefinition* saved_ = UserDefinition::m_ptrDefaultUserDefinition;
};

TEST_F(UserDefinitionTest, BuiltInSettings) {
    UserDefinition& d = UserDefinition::GetUserDefinition();
    EXPECT_EQ(joined(d.getMaxUser(), d.getBaseUid(), d.getUserShell(10003), d.getUserHome(), d.getUserGecos(),
                     d.getWebPam(), d.getPasswordPam(), d.getTallyFilePath(), d.getUserManagerRole(),
                     d.getSelfAccountRole(), d.getDBDelayWrongCredential(), d.getDBPasswordMaxLen(),
                     d.hasRootProfile()),
              "5|10000|/bin/sh|/home/admin|UI User|login|testpwd|/var/log/tallylog|role-user-manager|"
              "role-user-configure-self|10|255|1|");
    // The script's trailing blank separates the command from the paths appended to it.
    EXPECT_EQ(joined(d.getPasswordFilePath(), d.getPasswordTmpFilePath(), d.getShadowFilePath(),
                     d.getShadowTmpFilePath(), d.getGroupFilePath(), d.getGroupTmpFilePath(), d.getUpdateFileScript()),
              "/etc/passwd|/etc/tmppassd|/etc/shadow|/etc/tmpshadow|/etc/group|/etc/tmpgroup|false |");
    EXPECT_TRUE(d.isAValidUserName("", 4294967295u));
    EXPECT_TRUE(d.isAValidUserName("any: text\n", 10001));

    // Out-parameters: no lock count (-1); the expiration ages are left as the caller set them.
    int count = 42, maxAge = 7, minAge = -1, third = 3;
    bool exempt = true;
    d.getDBLockCount(count);
    d.getDBPasswordExpirationAge(maxAge, minAge, third, exempt);
    EXPECT_EQ(joined(count, maxAge, minAge, third, exempt), "-1|7|-1|3|1|");
}

TEST_F(UserDefinitionTest, HostOverrideIsSeenThroughTheAccessor) {
    struct HostDefinition : UserDefinition {
        unsigned int getBaseUid() override { return 20000; }
        bool hasRootProfile() override { return false; }
    } host;
    host.setUserDefinition(host);
    UserDefinition& d = UserDefinition::GetUserDefinition();
    EXPECT_EQ(&d, &host);
    EXPECT_EQ(joined(d.getBaseUid(), d.hasRootProfile(), d.getMaxUser()), "20000|0|5|");
}

TEST_F(UserDefinitionTest, MissingProviderIsReported) {
    UserDefinition::m_ptrDefaultUserDefinition = nullptr;
    try {
        UserDefinition::GetUserDefinition();
        ADD_FAILURE() << "expected UMException 40";
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 40);
        EXPECT_STREQ(e.what(), "No User Database");
        EXPECT_EQ(e.getUser(), "No User Database");
    }
}

}  // namespace
