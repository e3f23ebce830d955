// What hosts see of the foundation: exception log lines and JSON answers byte for byte, the
// providers and the per-thread log context.  Exceptions are used through the root class, as
// hosts catch them.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <locale>
#include <memory>
#include <string>
#include <thread>

#include <authnz/AuthNZException.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "foundation/Raise.h"
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
    const struct {
        Ptr exception;
        LogCategory category;
        int messageId;
        LogSeverity severity;
        const char* keyword;  // getError()
        const char* text;
    } cases[] = {
        {make<TvcException>(UMError::MainAccountUnremovable, std::string("boom"), "alice", true), kGeneral, 17, kDebug,
         "", "Unknow error,(3)boom,"},
        // A listed code, then one of another class's table: the class's defaults.
        {make<UMException>(UMError::UserAlreadyExists, "M", "u", true), kAccount, 17, kDebug, "",
         "User already exists,(0)M,"},
        {make<UMException>(UMSystemError::FileTransaction, "M", "u", true), kAccount, 17, kDebug, "", ",(13)M,"},
        {make<UMSystemErrorException>(UMSystemError::FileTransaction, "fopen /etc/tmppassd", "desc", "root", true),
         kAccount, 31, kDebug, "", "Main account unsupressible,(13)fopen /etc/tmppassd,desc"},
        {make<UMSystemErrorException>(UMSystemError::FilesLocked, "lckpwdf", "root", true), kAccount, 28, kDebug, "",
         "Password error,(11)lckpwdf,"},
        {make<UMSystemErrorException>(UMError::RoleError, "x", "root", true), kAccount, 27, kDebug, "", ",(2)x,"},
        {make<PMException>(PMError::UpdatePrivilegeFailed, "setUpPermission", "bob", true), kAccount, 33, kDebug, "",
         "Update privilege failed,(15)setUpPermission,"},
        {make<PMException>(PMError::MemoryAllocation, "malloc", "bob", true), kAccount, 35, kDebug, "",
         "Memory allocation error,(17)malloc,"},
        {make<PMException>(UMError::UserNotFound, "x", "bob", true), kAccount, 32, kDebug, "", ",(5)x,"},
        // The session classes bracket the user; notice and warning lines carry no details, and
        // the authentication text's own trailing blank gives two blanks.
        {make<AuthNZException>(AuthNZError::InitPamFailed, "pam_start", "", "alice", true), kSession, 9, kDebug, "",
         "Session - Init pam failed <alice>,(1)pam_start,"},
        {make<AuthNZException>(UMError::MaxUsersReached, "x", "", "carol", true), kSession, 27, kDebug, "",
         " <carol>,(6)x,"},
        {make<AuthenticationException>(AuthenticationError::InvalidCredentials, "bad", "", "alice", true), kSession, 4,
         LogSeverity::Notice, "InvalidCredentials", "Session - Authentication failed  <alice>"},
        {make<AuthorizationException>(AuthorizationError::NotAuthorized, "Not authorized", "Not authorized (check)",
                                      "bob", true),
         kSession, 7, kDebug, "NotAuthorized",
         "Session - Unauthorized <bob>,for user:bob,(302)Not authorized,Not authorized (check)"},
        {make<AuthorizationException>(AuthorizationError::ExpiredCredentials, "expired", "", "bob", true), kAccount, 7,
         LogSeverity::Warning, "ExpiredCredentials", "User account - Password expired <bob>"},
        // Password-quality codes have no text; NewPasswordTooLong does.
        {make<UpdatePasswordException>(UpdatePasswordError::FirstQualityRule + 1, "minlen", "", "dave", true), kAccount,
         17, kDebug, "", " <dave>,(23)minlen,"},
        {make<UpdatePasswordException>(UpdatePasswordError::NewPasswordTooLong, "cryptPwd", "", true), kAccount, 17,
         kDebug, "NewPasswordTooLong", "User account - New password too long <>,(19)cryptPwd,"},
    };
    umlog::Ctx::getCtx().setIP("192.0.2.7");
    tvc::test::RecordingLogger sink;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        sink.messages.clear();
        c.exception->logCdsMessage();
        ASSERT_EQ(sink.messages.size(), 1u);
        const tvc::test::LoggedMessage& m = sink.messages[0];
        EXPECT_EQ(m.text, c.text);
        EXPECT_EQ(m.category, c.category);
        EXPECT_EQ(m.messageId, c.messageId);
        EXPECT_EQ(m.severity, c.severity);
        EXPECT_EQ(m.ip, "192.0.2.7");
        EXPECT_EQ(m.third + m.sixth, 0);
        EXPECT_STREQ(c.exception->getError(), c.keyword);
    }
    umlog::Ctx::getCtx().setIP("");
    sink.messages.clear();
    UMException(UMError::UserNotFound, "gone", "u", false).logCdsMessage();
    EXPECT_TRUE(sink.messages.empty()) << "made with logging off";
}

TEST(ExceptionJson, ClassAndErrorCodeExactly) {
    const std::pair<Ptr, const char*> cases[] = {
        {make<TvcException>(UMError::MainAccountUnremovable, "x", "u", true),
         "{\"classCode\":-1,\n \"errorCode\":3\n}"},
        {make<UMException>(UMError::UserNotFound, "x", "u", false), "{\"classCode\":0,\n \"errorCode\":5\n}"},
        {make<UpdatePasswordException>(UpdatePasswordError::FirstQualityRule + 1, "x", "u", true),
         "{\"classCode\":0,\n \"errorCode\":23\n}"},
        {make<AuthNZException>(AuthNZError::RootNotAllowed, "x", "u", true), "{\"classCode\":1,\n \"errorCode\":0\n}"},
        {make<AuthorizationException>(AuthorizationError::NotAuthorized, "x", "u", true),
         "{\"classCode\":1,\n \"errorCode\":302\n}"},
        // The form without a message.
        {make<TvcException>(UMError::MainAccountUndisable, std::string("carol"), true),
         "{\"classCode\":-1,\n \"errorCode\":4\n}"},
    };
    for (const auto& [exception, json] : cases) EXPECT_STREQ(exception->getJsonAnswer(), json);
    EXPECT_STREQ(cases[5].first->what(), "");
    EXPECT_EQ(cases[5].first->getUser(), "carol");
}

// The library's throws carry the context's user, a message whose numbers never take a host
// locale's grouping, and a failed system call's reason as the description.
TEST(Raise, ContextUserClassicNumbersAndTheReason) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    umlog::Ctx::getCtx().setUsername("alice");
    try {
        detail::raiseErrno<UMSystemErrorException>(ENOENT, UMSystemError::FileTransaction, "open ", 12345);
    } catch (const UMSystemErrorException& e) {
        EXPECT_EQ(e.getErrorId(), UMSystemError::FileTransaction);
        EXPECT_STREQ(e.what(), "open 12345");
        EXPECT_STREQ(e.getErrorDescription(), std::strerror(ENOENT));
        EXPECT_EQ(e.getUser(), "alice");
    }
    std::locale::global(saved);
    umlog::Ctx::getCtx().setUsername("");
}

// A host's provider is the one the library asks; with none installed, every use is refused.
TEST(Providers, InstalledOrRefusedWithNothingInstalled) {
    UserDefinition* const savedDefinition = UserDefinition::m_ptrDefaultUserDefinition;
    Logger* const savedLogger = Logger::m_ptrDefaultSLogger;
    struct HostDefinition : UserDefinition {
        unsigned int getBaseUid() override { return 20000; }
    } host;
    host.setUserDefinition(host);
    EXPECT_EQ(UserDefinition::GetUserDefinition().getBaseUid(), 20000u);
    UserDefinition::m_ptrDefaultUserDefinition = nullptr;
    Logger::m_ptrDefaultSLogger = nullptr;
    const std::pair<std::function<void()>, const char*> uses[] = {
        {[] { UserDefinition::GetUserDefinition(); }, "No User Database"},
        {[] { Logger::GetLogger(); }, "No umlog Database"},
    };
    for (const auto& [use, missing] : uses) {
        try {
            use();
            ADD_FAILURE() << missing;
        } catch (const UMException& e) {
            EXPECT_EQ(e.getErrorId(), UMError::NothingInstalled);
            EXPECT_STREQ(e.what(), missing);
            EXPECT_EQ(e.getUser(), missing);
        }
    }
    UserDefinition::m_ptrDefaultUserDefinition = savedDefinition;
    Logger::m_ptrDefaultSLogger = savedLogger;
}

TEST(LogContext, OnePerThreadAndLaterValuesReplaceEarlierOnes) {
    umlog::Ctx& mine = umlog::Ctx::getCtx();
    mine.setUsername("main");
    mine.addAttribut("session", "a");
    mine.addAttribut("session", "b");
    EXPECT_EQ(mine.getAttribut("session") + "|" + mine.getAttribut("other"), "b|");
    std::string seen;
    std::thread([&seen] {
        umlog::Ctx& other = umlog::Ctx::getCtx();
        seen = other.getUsername() + "|" + other.getAttribut("session") + "|" + std::to_string(other.getProtocol());
        other.setUsername("worker");
    }).join();
    EXPECT_EQ(seen, "||0");
    EXPECT_EQ(mine.getUsername(), "main");
    mine.setUsername("");
}

}  // namespace
