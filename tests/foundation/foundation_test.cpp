// What hosts see of the foundation: exception log lines byte for byte (through the root class, as
// hosts catch them; umctl_test checks the JSON answers), what the library's throws carry, and the
// providers.
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

// "code: message (user) description" of what `use` throws.
std::string thrown(const std::function<void()>& use) try {
    use();
    return "nothing thrown";
} catch (const TvcException& e) {
    return std::to_string(e.getErrorId()) + ": " + e.what() + " (" + e.getUser() + ") " + e.getErrorDescription();
}

// A logged line as "category message-id severity keyword|text", the keyword being getError()'s;
// categories are 1 general, 8 user account, 9 session, severities 4 warning, 5 notice, 7 debug.
TEST(ExceptionLog, EveryClassRendersItsCodesAndDefaults) {
    const std::pair<Ptr, std::string> cases[] = {
        {make<TvcException>(UMError::MainAccountUnremovable, std::string("m"), "alice", true),
         "1 17 7 |Unknow error,(3)m,"},
        // A listed code, then one of another class's table: the class's defaults.
        {make<UMException>(UMError::UserAlreadyExists, "M", "u", true), "8 17 7 |User already exists,(0)M,"},
        {make<UMException>(UMSystemError::FileTransaction, "M", "u", true), "8 17 7 |,(13)M,"},
        {make<UMSystemErrorException>(UMSystemError::FileTransaction, "m", "d", "u", true),
         "8 31 7 |Main account unsupressible,(13)m,d"},
        {make<UMSystemErrorException>(UMSystemError::FilesLocked, "m", "u", true), "8 28 7 |Password error,(11)m,"},
        {make<UMSystemErrorException>(UMError::RoleError, "m", "u", true), "8 27 7 |,(2)m,"},
        {make<PMException>(PMError::UpdatePrivilegeFailed, "m", "bob", true), "8 33 7 |Update privilege failed,(15)m,"},
        {make<PMException>(UMError::UserNotFound, "m", "bob", true), "8 32 7 |,(5)m,"},
        // The session classes bracket the user; notice and warning lines carry no details, and
        // the authentication text's own trailing blank gives two blanks.
        {make<AuthNZException>(AuthNZError::InitPamFailed, "m", "", "alice", true),
         "9 9 7 |Session - Init pam failed <alice>,(1)m,"},
        {make<AuthNZException>(UMError::MaxUsersReached, "m", "", "carol", true), "9 27 7 | <carol>,(6)m,"},
        {make<AuthenticationException>(AuthenticationError::InvalidCredentials, "m", "", "alice", true),
         "9 4 5 InvalidCredentials|Session - Authentication failed  <alice>"},
        {make<AuthorizationException>(AuthorizationError::NotAuthorized, "m", "d", "bob", true),
         "9 7 7 NotAuthorized|Session - Unauthorized <bob>,for user:bob,(302)m,d"},
        {make<AuthorizationException>(AuthorizationError::ExpiredCredentials, "m", "", "bob", true),
         "8 7 4 ExpiredCredentials|User account - Password expired <bob>"},
        // Password-quality codes have no text; NewPasswordTooLong does.
        {make<UpdatePasswordException>(UpdatePasswordError::FirstQualityRule + 1, "m", "", "dave", true),
         "8 17 7 | <dave>,(23)m,"},
        {make<UpdatePasswordException>(UpdatePasswordError::NewPasswordTooLong, "m", "", true),
         "8 17 7 NewPasswordTooLong|User account - New password too long <>,(19)m,"},
    };
    umlog::Ctx::getCtx().setIP("192.0.2.7");
    tvc::test::RecordingLogger sink;
    for (const auto& [exception, line] : cases) {
        sink.messages.clear();
        exception->logCdsMessage();
        ASSERT_EQ(sink.messages.size(), 1u) << line;
        const tvc::test::LoggedMessage& m = sink.messages[0];
        EXPECT_EQ(std::to_string(static_cast<int>(m.category)) + " " + std::to_string(m.messageId) + " " +
                      std::to_string(static_cast<int>(m.severity)) + " " + exception->getError() + "|" + m.text,
                  line);
        EXPECT_EQ(m.ip + " " + std::to_string(m.third) + " " + std::to_string(m.sixth), "192.0.2.7 0 0");
    }
    umlog::Ctx::getCtx().setIP("");
    sink.messages.clear();
    UMException(UMError::UserNotFound, "gone", "u", false).logCdsMessage();
    EXPECT_TRUE(sink.messages.empty()) << "made with logging off";
}

// The library's throws carry the calling thread's context user (every thread has a context of
// its own), a message whose numbers never take a host locale's grouping, and a failed system
// call's reason as the description.
TEST(Raise, ContextUserClassicNumbersAndTheReason) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    umlog::Ctx::getCtx().setUsername("alice");
    const auto raise = [] {
        detail::raiseErrno<UMSystemErrorException>(ENOENT, UMSystemError::FileTransaction, "open ", 12345);
    };
    std::string elsewhere;
    std::thread([&] {
        elsewhere = thrown(raise);
        umlog::Ctx::getCtx().setUsername("worker");
    }).join();
    const std::string reason = std::strerror(ENOENT);
    EXPECT_EQ(thrown(raise), "13: open 12345 (alice) " + reason);
    EXPECT_EQ(elsewhere, "13: open 12345 () " + reason);
    std::locale::global(saved);
    umlog::Ctx::getCtx().setUsername("");
}

// With no provider installed, every use is refused.
TEST(Providers, RefusedWithNothingInstalled) {
    UserDefinition* const savedDefinition = UserDefinition::m_ptrDefaultUserDefinition;
    Logger* const savedLogger = Logger::m_ptrDefaultSLogger;
    UserDefinition::m_ptrDefaultUserDefinition = nullptr;
    Logger::m_ptrDefaultSLogger = nullptr;
    EXPECT_EQ(thrown([] { UserDefinition::GetUserDefinition(); }), "40: No User Database (No User Database) ");
    EXPECT_EQ(thrown([] { Logger::GetLogger(); }), "40: No umlog Database (No umlog Database) ");
    UserDefinition::m_ptrDefaultUserDefinition = savedDefinition;
    Logger::m_ptrDefaultSLogger = savedLogger;
}

}  // namespace
