// Renderings of the exception classes: log lines through a recording sink and JSON answers,
// compared byte for byte.
#include <gtest/gtest.h>

#include <authnz/AuthNZException.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>

#include "support/RecordingLogger.h"

using namespace usermanagement;
using authnz::AuthenticationException;
using authnz::AuthNZException;
using authnz::AuthorizationException;
using tarvicexception::TvcException;

namespace {

class ExceptionLogTest : public ::testing::Test {
protected:
    void SetUp() override { umlog::Ctx::getCtx().setIP("192.0.2.7"); }
    void TearDown() override { umlog::Ctx::getCtx().setIP(""); }

    // Logs `e` and returns the one message the sink received.
    tvc::test::LoggedMessage logged(TvcException& e) {
        e.logCdsMessage();
        EXPECT_EQ(sink.messages.size(), 1u);
        return sink.messages.empty() ? tvc::test::LoggedMessage{} : sink.messages.back();
    }

    tvc::test::RecordingLogger sink;
};

TEST_F(ExceptionLogTest, RootClassLogsUnknownErrorWithDetails) {
    TvcException e(3, std::string("boom"), "alice", true);
    auto m = logged(e);
    EXPECT_EQ(m.category, LogCategory::General);
    EXPECT_EQ(m.messageId, 17);
    EXPECT_EQ(m.severity, LogSeverity::Debug);
    EXPECT_EQ(m.third, 0);
    EXPECT_EQ(m.sixth, 0);
    EXPECT_EQ(m.ip, "192.0.2.7");
    EXPECT_EQ(m.text, "Unknow error,(3)boom,");
}

TEST_F(ExceptionLogTest, UserManagementCodesAndDefaults) {
    struct Case {
        int code;
        int messageId;
        const char* text;
    };
    // Listed codes, then codes that belong to the other classes' tables.
    for (const Case& c : {Case{0, 17, "User already exists"}, Case{2, 19, "Role error"},
                          Case{5, 22, "User not found"}, Case{9, 26, "Missing parameter"}, Case{13, 17, ""},
                          Case{40, 17, ""}}) {
        sink.messages.clear();
        UMException e(c.code, "M", "u", true);
        auto m = logged(e);
        EXPECT_EQ(m.category, LogCategory::UserAccount) << c.code;
        EXPECT_EQ(m.messageId, c.messageId) << c.code;
        EXPECT_EQ(m.text, std::string(c.text) + ",(" + std::to_string(c.code) + ")M,") << c.code;
    }
}

TEST_F(ExceptionLogTest, SystemErrorCodeThirteenSkipsMessageIdThirty) {
    UMSystemErrorException e(13, "fopen /etc/tmppassd prepareSystemFiles", std::string("desc"), "root", true);
    auto m = logged(e);
    EXPECT_EQ(m.messageId, 31);
    EXPECT_EQ(m.text, "Main account unsupressible,(13)fopen /etc/tmppassd prepareSystemFiles,desc");

    sink.messages.clear();
    UMSystemErrorException other(2, "x", "root", true);
    EXPECT_EQ(logged(other).messageId, 27);
}

TEST_F(ExceptionLogTest, PrivilegeCodes) {
    PMException known(15, "setUpPermission", "bob", true);
    auto m = logged(known);
    EXPECT_EQ(m.messageId, 33);
    EXPECT_EQ(m.text, "Update privilege failed,(15)setUpPermission,");

    sink.messages.clear();
    PMException unknown(99, "x", "bob", true);
    m = logged(unknown);
    EXPECT_EQ(m.messageId, 32);
    EXPECT_EQ(m.text, ",(99)x,");
}

TEST_F(ExceptionLogTest, DisabledLoggingSendsNothingButStillAnswers) {
    UMException e(5, "gone", "u", false);
    e.logCdsMessage();
    EXPECT_TRUE(sink.messages.empty());
    EXPECT_STREQ(e.getJsonAnswer(), "{\"classCode\":0,\n \"errorCode\":5\n}");
}

TEST_F(ExceptionLogTest, EveryCallLogsAgain) {
    UMException e(1, "x", "u", true);
    e.logCdsMessage();
    e.logCdsMessage();
    EXPECT_EQ(sink.messages.size(), 2u);
}

TEST_F(ExceptionLogTest, SessionClassesBracketTheUser) {
    AuthNZException init(1, "pam_start", std::string(), "alice", true);
    auto m = logged(init);
    EXPECT_STREQ(init.getError(), "");
    EXPECT_EQ(m.category, LogCategory::Session);
    EXPECT_EQ(m.messageId, 9);
    EXPECT_EQ(m.text, "Session - Init pam failed <alice>,(1)pam_start,");

    sink.messages.clear();
    AuthenticationException failed(200, "bad", std::string(), "alice", true);
    m = logged(failed);
    EXPECT_STREQ(failed.getError(), "InvalidCredentials");
    EXPECT_EQ(m.messageId, 4);
    EXPECT_EQ(m.severity, LogSeverity::Notice);
    // Notice severity: no details, and the text's own trailing blank gives two blanks.
    EXPECT_EQ(m.text, "Session - Authentication failed  <alice>");

    sink.messages.clear();
    AuthNZException unlisted(77, "x", std::string(), "carol", true);
    m = logged(unlisted);
    EXPECT_EQ(m.messageId, 27);
    EXPECT_EQ(m.text, " <carol>,(77)x,");
}

TEST_F(ExceptionLogTest, AuthorizationNamesTheUserOnDebugLines) {
    AuthorizationException refused(302, "Not authorized", "Not authorized (checkUserManagementRight)", "bob",
                                   true);
    auto m = logged(refused);
    EXPECT_EQ(m.category, LogCategory::Session);
    EXPECT_EQ(m.messageId, 7);
    EXPECT_EQ(m.severity, LogSeverity::Debug);
    EXPECT_EQ(m.text,
              "Session - Unauthorized <bob>,for user:bob,(302)Not authorized,"
              "Not authorized (checkUserManagementRight)");
    EXPECT_STREQ(refused.getError(), "NotAuthorized");

    sink.messages.clear();
    AuthorizationException expired(301, "expired", std::string(), "bob", true);
    m = logged(expired);
    EXPECT_EQ(m.category, LogCategory::UserAccount);
    EXPECT_EQ(m.severity, LogSeverity::Warning);
    EXPECT_EQ(m.text, "User account - Password expired <bob>");
}

TEST_F(ExceptionLogTest, UpdatePasswordRuleCodesHaveNoText) {
    UpdatePasswordException rule(23, "minlen", std::string(), "dave", true);
    auto m = logged(rule);
    EXPECT_STREQ(rule.getError(), "");
    EXPECT_EQ(m.category, LogCategory::UserAccount);
    EXPECT_EQ(m.messageId, 17);
    EXPECT_EQ(m.text, " <dave>,(23)minlen,");
    EXPECT_STREQ(rule.getJsonAnswer(), "{\"classCode\":0,\n \"errorCode\":23\n}");

    sink.messages.clear();
    UpdatePasswordException tooLong(19, "cryptPwd", "", true);
    m = logged(tooLong);
    EXPECT_STREQ(tooLong.getError(), "NewPasswordTooLong");
    EXPECT_EQ(m.text, "User account - New password too long <>,(19)cryptPwd,");
}

TEST_F(ExceptionLogTest, ExceptionsCaughtAsRootKeepTheirRendering) {
    try {
        throw AuthorizationException(302, "Not authorized", "d", "eve", true);
    } catch (TvcException& e) {
        EXPECT_STREQ(e.getJsonAnswer(), "{\"classCode\":1,\n \"errorCode\":302\n}");
        e.logCdsMessage();
        ASSERT_EQ(sink.messages.size(), 1u);
        EXPECT_NE(sink.messages[0].text.find(",for user:eve"), std::string::npos);
    }
}

TEST(ExceptionJson, ExactTextAndLength) {
    UMException um(5, "x", "u", true);
    const std::string first = um.getJsonAnswer();
    EXPECT_EQ(first, "{\"classCode\":0,\n \"errorCode\":5\n}");
    EXPECT_EQ(first.size(), 32u);
    EXPECT_EQ(std::string(um.getJsonAnswer()), first);

    TvcException root(3, "x", "u", true);
    const std::string second = root.getJsonAnswer();
    EXPECT_EQ(second, "{\"classCode\":-1,\n \"errorCode\":3\n}");
    EXPECT_EQ(second.size(), 33u);

    AuthNZException zero(0, "x", "u", true);
    EXPECT_STREQ(zero.getJsonAnswer(), "{\"classCode\":1,\n \"errorCode\":0\n}");
    AuthenticationException auth(200, "x", "u", true);
    EXPECT_STREQ(auth.getJsonAnswer(), "{\"classCode\":1,\n \"errorCode\":200\n}");
}

TEST(ExceptionConstruction, FormsFillTheRightFields) {
    TvcException three(4, std::string("carol"), true);
    EXPECT_STREQ(three.what(), "");
    EXPECT_EQ(three.getUser(), "carol");
    EXPECT_STREQ(three.getErrorDescription(), "");

    TvcException five(4, "msg", std::string("desc"), "dan", false);
    EXPECT_STREQ(five.what(), "msg");
    EXPECT_STREQ(five.getErrorDescription(), "desc");
    EXPECT_EQ(five.getUser(), "dan");
    EXPECT_EQ(five.getErrorId(), 4);
    EXPECT_EQ(five.getRangeClass(), -1);
}

TEST(Logger, DefaultSinkDiscardsAndMissingSinkIsReported) {
    UMException e(1, "x", "u", true);
    EXPECT_NO_THROW(e.logCdsMessage());

    Logger* saved = Logger::m_ptrDefaultSLogger;
    Logger::m_ptrDefaultSLogger = nullptr;
    try {
        Logger::GetLogger();
        ADD_FAILURE() << "GetLogger without a sink must throw";
    } catch (const UMException& missing) {
        EXPECT_EQ(missing.getErrorId(), 40);
        EXPECT_STREQ(missing.what(), "No umlog Database");
        EXPECT_EQ(missing.getUser(), "No umlog Database");
    }
    Logger::m_ptrDefaultSLogger = saved;
}

}  // namespace
