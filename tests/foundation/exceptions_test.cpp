// Renderings of the exception classes: log lines through a recording sink and JSON answers,
// compared byte for byte.  Every exception is used through the root class, as hosts catch it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include <authnz/AuthNZException.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>

#include "support/RecordingLogger.h"

using namespace usermanagement;
using namespace authnz;
using tarvicexception::TvcException;

namespace {

using Ptr = std::shared_ptr<TvcException>;

template <class E, class... Args>
Ptr make(Args... args) {
    return std::make_shared<E>(args...);
}

constexpr LogCategory kGeneral = LogCategory::General, kAccount = LogCategory::UserAccount,
                      kSession = LogCategory::Session;
constexpr LogSeverity kDebug = LogSeverity::Debug;

TEST(ExceptionLog, EveryClassRendersItsCodesAndDefaults) {
    struct Case {
        Ptr exception;
        LogCategory category;
        int messageId;
        LogSeverity severity;
        const char* keyword;  // getError()
        const char* text;
    };
    const Case cases[] = {
        {make<TvcException>(3, std::string("boom"), "alice", true), kGeneral, 17, kDebug, "", "Unknow error,(3)boom,"},
        // Listed codes, then a code that belongs to another class's table.
        {make<UMException>(0, "M", "u", true), kAccount, 17, kDebug, "", "User already exists,(0)M,"},
        {make<UMException>(9, "M", "u", true), kAccount, 26, kDebug, "", "Missing parameter,(9)M,"},
        {make<UMException>(13, "M", "u", true), kAccount, 17, kDebug, "", ",(13)M,"},
        // 13 skips message id 30.
        {make<UMSystemErrorException>(13, "fopen /etc/tmppassd prepareSystemFiles", "desc", "root", true), kAccount,
         31, kDebug, "", "Main account unsupressible,(13)fopen /etc/tmppassd prepareSystemFiles,desc"},
        {make<UMSystemErrorException>(2, "x", "root", true), kAccount, 27, kDebug, "", ",(2)x,"},
        {make<PMException>(15, "setUpPermission", "bob", true), kAccount, 33, kDebug, "",
         "Update privilege failed,(15)setUpPermission,"},
        {make<PMException>(99, "x", "bob", true), kAccount, 32, kDebug, "", ",(99)x,"},
        // The session classes bracket the user; notice and warning lines carry no details, and
        // the authentication text's own trailing blank gives two blanks.
        {make<AuthNZException>(1, "pam_start", "", "alice", true), kSession, 9, kDebug, "",
         "Session - Init pam failed <alice>,(1)pam_start,"},
        {make<AuthNZException>(77, "x", "", "carol", true), kSession, 27, kDebug, "", " <carol>,(77)x,"},
        {make<AuthenticationException>(200, "bad", "", "alice", true), kSession, 4, LogSeverity::Notice,
         "InvalidCredentials", "Session - Authentication failed  <alice>"},
        {make<AuthorizationException>(302, "Not authorized", "Not authorized (checkUserManagementRight)", "bob", true),
         kSession, 7, kDebug, "NotAuthorized",
         "Session - Unauthorized <bob>,for user:bob,(302)Not authorized,Not authorized (checkUserManagementRight)"},
        {make<AuthorizationException>(301, "expired", "", "bob", true), kAccount, 7, LogSeverity::Warning,
         "ExpiredCredentials", "User account - Password expired <bob>"},
        // Password-rule codes have no text; 19 does.
        {make<UpdatePasswordException>(23, "minlen", "", "dave", true), kAccount, 17, kDebug, "",
         " <dave>,(23)minlen,"},
        {make<UpdatePasswordException>(19, "cryptPwd", "", true), kAccount, 17, kDebug, "NewPasswordTooLong",
         "User account - New password too long <>,(19)cryptPwd,"},
    };
    umlog::Ctx::getCtx().setIP("192.0.2.7");
    tvc::test::RecordingLogger sink;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        sink.messages.clear();
        c.exception->logCdsMessage();
        EXPECT_EQ(sink.messages.size(), 1u);
        if (sink.messages.empty()) continue;
        const tvc::test::LoggedMessage& m = sink.messages[0];
        EXPECT_EQ(m.text, c.text);
        EXPECT_EQ(m.category, c.category);
        EXPECT_EQ(m.messageId, c.messageId);
        EXPECT_EQ(m.severity, c.severity);
        EXPECT_EQ(m.ip, "192.0.2.7");
        EXPECT_EQ(std::make_pair(m.third, m.sixth), std::make_pair(0, 0));
        EXPECT_STREQ(c.exception->getError(), c.keyword);
    }
    umlog::Ctx::getCtx().setIP("");
}

TEST(ExceptionLog, LogFlagDecidesAndEveryCallLogsAgain) {
    tvc::test::RecordingLogger sink;
    UMException(5, "gone", "u", false).logCdsMessage();
    EXPECT_TRUE(sink.messages.empty());
    UMException loud(1, "x", "u", true);
    loud.logCdsMessage();
    loud.logCdsMessage();
    EXPECT_EQ(sink.messages.size(), 2u);
}

TEST(ExceptionJson, ClassAndErrorCodeExactly) {
    const std::pair<Ptr, const char*> cases[] = {
        {make<TvcException>(3, "x", "u", true), "{\"classCode\":-1,\n \"errorCode\":3\n}"},
        {make<UMException>(5, "x", "u", false), "{\"classCode\":0,\n \"errorCode\":5\n}"},
        {make<UpdatePasswordException>(23, "x", "u", true), "{\"classCode\":0,\n \"errorCode\":23\n}"},
        {make<AuthNZException>(0, "x", "u", true), "{\"classCode\":1,\n \"errorCode\":0\n}"},
        {make<AuthorizationException>(302, "x", "u", true), "{\"classCode\":1,\n \"errorCode\":302\n}"},
    };
    for (const auto& [exception, json] : cases) EXPECT_STREQ(exception->getJsonAnswer(), json);
}

TEST(ExceptionConstruction, ThreeArgumentFormHasNoMessage) {
    TvcException e(4, std::string("carol"), true);
    EXPECT_STREQ(e.what(), "");
    EXPECT_STREQ(e.getErrorDescription(), "");
    EXPECT_EQ(e.getUser(), "carol");
}

TEST(Logger, MissingSinkIsReported) {
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
