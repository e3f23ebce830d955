#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

using usermanagement::UMException;
using usermanagement::UserDefinition;

namespace {

// A host configuration overriding two settings.
class HostDefinition : public UserDefinition {
public:
    unsigned int getBaseUid() override { return 20000; }
    bool hasRootProfile() override { return false; }
};

// Installs a provider for one test and puts the built-in one back.
class InstalledDefinition {
public:
    explicit InstalledDefinition(UserDefinition& definition) : m_saved(UserDefinition::m_ptrDefaultUserDefinition) {
        definition.setUserDefinition(definition);
    }
    ~InstalledDefinition() { UserDefinition::m_ptrDefaultUserDefinition = m_saved; }

private:
    UserDefinition* m_saved;
};

TEST(UserDefinition, BuiltInSettings) {
    UserDefinition& d = UserDefinition::GetUserDefinition();
    EXPECT_EQ(d.getMaxUser(), 5u);
    EXPECT_EQ(d.getBaseUid(), 10000u);
    EXPECT_TRUE(d.isAValidUserName("", 4294967295u));
    EXPECT_TRUE(d.isAValidUserName("any: text\n", 10001));
    EXPECT_STREQ(d.getUserShell(10003), "/bin/sh");
    EXPECT_STREQ(d.getUserHome(), "/home/admin");
    EXPECT_STREQ(d.getUserGecos(), "UI User");
    EXPECT_EQ(d.getWebPam(), "login");
    EXPECT_EQ(d.getPasswordPam(), "testpwd");
    EXPECT_EQ(d.getTallyFilePath(), "/var/log/tallylog");
    EXPECT_EQ(d.getUserManagerRole(), "role-user-manager");
    EXPECT_EQ(d.getSelfAccountRole(), "role-user-configure-self");
    EXPECT_EQ(d.getDBDelayWrongCredential(), 10u);
    EXPECT_EQ(d.getDBPasswordMaxLen(), 255u);
    EXPECT_STREQ(d.getPasswordFilePath(), "/etc/passwd");
    EXPECT_STREQ(d.getPasswordTmpFilePath(), "/etc/tmppassd");
    EXPECT_STREQ(d.getShadowFilePath(), "/etc/shadow");
    EXPECT_STREQ(d.getShadowTmpFilePath(), "/etc/tmpshadow");
    EXPECT_STREQ(d.getGroupFilePath(), "/etc/group");
    EXPECT_STREQ(d.getGroupTmpFilePath(), "/etc/tmpgroup");
    EXPECT_TRUE(d.hasRootProfile());
    // The trailing blank separates the command from the paths appended to it.
    EXPECT_EQ(std::string(d.getUpdateFileScript()), "false ");
}

TEST(UserDefinition, OutParameterSettings) {
    UserDefinition& d = UserDefinition::GetUserDefinition();
    int count = 42;
    d.getDBLockCount(count);
    EXPECT_EQ(count, -1);

    int maxAge = 7, minAge = -1, third = 3;
    bool exempt = true;
    d.getDBPasswordExpirationAge(maxAge, minAge, third, exempt);
    EXPECT_EQ(maxAge, 7);
    EXPECT_EQ(minAge, -1);
    EXPECT_EQ(third, 3);
    EXPECT_TRUE(exempt);
}

TEST(UserDefinition, HostOverrideSeenThroughTheAccessor) {
    HostDefinition host;
    {
        InstalledDefinition installed(host);
        UserDefinition& d = UserDefinition::GetUserDefinition();
        EXPECT_EQ(&d, &host);
        EXPECT_EQ(d.getBaseUid(), 20000u);
        EXPECT_FALSE(d.hasRootProfile());
        EXPECT_EQ(d.getMaxUser(), 5u);  // not overridden
    }
    EXPECT_EQ(UserDefinition::GetUserDefinition().getBaseUid(), 10000u);
}

TEST(UserDefinition, MissingProviderIsReported) {
    UserDefinition* saved = UserDefinition::m_ptrDefaultUserDefinition;
    UserDefinition::m_ptrDefaultUserDefinition = nullptr;
    try {
        UserDefinition::GetUserDefinition();
        ADD_FAILURE() << "expected UMException 40";
    } catch (const UMException& e) {
        EXPECT_EQ(e.getErrorId(), 40);
        EXPECT_STREQ(e.what(), "No User Database");
        EXPECT_EQ(e.getUser(), "No User Database");
    }
    UserDefinition::m_ptrDefaultUserDefinition = saved;
}

}  // namespace
