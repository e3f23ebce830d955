// What hosts see of the foundation: exception log lines byte for byte (through the root class, as hosts
// catch them; umctl_test checks the JSON answers), what the library's throws carry, the providers; and
// the test environment: the sandbox builds the device sample-device.txt describes and keeps it inside.

#include <crypt.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <locale>
#include <memory>
#include <thread>

#include <authnz/AuthNZException.h>
#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "foundation/Raise.h"
#include "sampledevice/SampleDevice.h"
#include "support/RecordingLogger.h"
#include "support/Sandbox.h"

using namespace usermanagement;
using namespace authnz;
using tarvicexception::TvcException;
using tvc::sample::sampleDevice;
using tvc::test::readFile;

namespace {

template <class E, class... Args>
std::shared_ptr<TvcException> make(Args... args) {
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
    const std::pair<std::shared_ptr<TvcException>, std::string> cases[] = {
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

// A name or message holding a newline or another control character cannot add a line to a log
// that a sink writes line by line: the sink gets it written out; other bytes stay as they are.
TEST(ExceptionLog, EveryLineIsOneLine) {
    tvc::test::RecordingLogger sink;
    AuthenticationException(AuthenticationError::InvalidCredentials, "m", "", "a\naudit 8/1: forged", true)
        .logCdsMessage();
    UMException(UMError::UserNotFound, "m\r\t\x1b[31m", "d\x7f\\", "u", true).logCdsMessage();
    ASSERT_EQ(sink.messages.size(), 2u);
    EXPECT_EQ(sink.messages[0].text, "Session - Authentication failed  <a\\naudit 8/1: forged>");
    EXPECT_EQ(sink.messages[1].text, "User not found,(5)m\\r\\t\\x1b[31m,d\\x7f\\\\");
}

// The library's throws carry the calling thread's own context user, a message whose numbers never
// take a host locale's grouping, and a failed system call's reason as the description.
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
    UserDefinition* const savedDefinition = std::exchange(UserDefinition::m_ptrDefaultUserDefinition, nullptr);
    Logger* const savedLogger = std::exchange(Logger::m_ptrDefaultSLogger, nullptr);
    EXPECT_EQ(thrown([] { UserDefinition::GetUserDefinition(); }), "40: No User Database (No User Database) ");
    EXPECT_EQ(thrown([] { Logger::GetLogger(); }), "40: No umlog Database (No umlog Database) ");
    UserDefinition::m_ptrDefaultUserDefinition = savedDefinition;
    Logger::m_ptrDefaultSLogger = savedLogger;
}

using SampleDevice = tvc::test::SandboxTest;

// "uid:gid mode" of a file, the mode in octal.
std::string ownerAndMode(const std::string& path) {
    struct stat st {};
    char text[64] = "missing";
    if (stat(path.c_str(), &st) == 0)
        std::snprintf(text, sizeof text, "%u:%u %o", st.st_uid, st.st_gid, st.st_mode & 07777);
    return text;
}

// The four account files in `dir` are as the description gives them, owned and protected as on a device.
void expectDescribedFilesIn(const std::string& dir) {
    std::string passwd, shadow, group, gshadow;
    for (const auto& a : sampleDevice().accounts) {
        passwd += a.name + ":x:" + std::to_string(a.uid) + ":" + std::to_string(sampleDevice().group(a.group).gid) +
                  ":" + a.gecos + ":" + a.home + ":" + a.shell + "\n";
        shadow += a.name + ":" + a.shadow + ":" + sampleDevice().aging + "\n";
    }
    for (const auto& g : sampleDevice().groups) {
        std::string members;
        for (const std::string& member : g.members) members += (members.empty() ? "" : ",") + member;
        group += g.name + ":x:" + std::to_string(g.gid) + ":" + members + "\n";
        gshadow += g.name + ":!::" + members + "\n";
    }
    for (const auto& [name, text] :
         {std::pair{"passwd", passwd}, {"shadow", shadow}, {"group", group}, {"gshadow", gshadow}}) {
        EXPECT_EQ(readFile(dir + "/" + name), text) << dir << "/" << name;
        EXPECT_EQ(ownerAndMode(dir + "/" + name), std::strstr(name, "shadow") ? "0:42 640" : "0:0 644");
    }
}

// The fixture restores contents, owners and modes, whatever a test did to them.
TEST_F(SampleDevice, SandboxWritesTheDescribedDeviceAndTheFixturePutsItBack) {
    expectDescribedFilesIn(tvc::test::pristineDir());
    // The hashes are those of the test passwords; an account without one is locked.
    for (const auto& a : sampleDevice().accounts)
        EXPECT_TRUE(a.password.empty() ? a.shadow == "*" || a.shadow == "!"
                                       : a.shadow == crypt(a.password.c_str(), a.shadow.c_str()))
            << a.name;
    EXPECT_EQ(getpwnam("daemon"), nullptr) << "every Debian host has it; the sample device does not";

    tvc::test::writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    ASSERT_TRUE(chown("/etc/shadow", 0, 0) == 0 && chmod("/etc/shadow", 0600) == 0);
    tvc::test::restoreSampleDevice();
    expectDescribedFilesIn("/etc");
}

// "<exit status> <output>" of the sandbox script run with `args` (shell words), as nobody when
// asked; `meanwhile` may read the first of its output.
std::string runSandbox(const std::string& args, bool asNobody = false,
                       const std::function<void(std::FILE*)>& meanwhile = nullptr) {
    const std::string as = asNobody ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    std::FILE* out = popen((as + tvc::test::sandboxScript() + " " + args + " 2>&1").c_str(), "r");
    if (meanwhile) meanwhile(out);
    const tvc::test::Result result = tvc::test::finish(out);
    return std::to_string(result.status) + " " + result.output;
}

// Sandboxes inside this one: whatever a command does to /etc, /home and /var/log stays inside,
// and a sandbox told to stop ends its command before it goes, since the command must not run on
// without the sandbox's scratch file system and pristine copies underneath it.
TEST_F(SampleDevice, NestedSandboxesKeepChangesInsideEndTheirCommandAndKeepTheirInterface) {
    pid_t command = 0, sandbox = 0;
    const std::string stopped = runSandbox("-- sh -c 'echo $$ $PPID; exec sleep 30'", false, [&](std::FILE* said) {
        // The command, the sandbox's child, names both.
        if (std::fscanf(said, "%d %d", &command, &sandbox) == 2 && sandbox > 0) kill(sandbox, SIGTERM);
    });
    const bool commandLeft = command > 0 && kill(command, 0) == 0;
    if (commandLeft) kill(command, SIGKILL);
    EXPECT_GT(command, 0) << "the nested sandbox never started its command";
    EXPECT_FALSE(commandLeft) << "the command outlived its sandbox";
    EXPECT_EQ(stopped.substr(0, stopped.find(' ')), std::to_string(128 + SIGTERM));

    EXPECT_EQ(runSandbox("-- sh -c 'echo intruder:x:0:0::/:/bin/sh >>/etc/passwd; : >/etc/shadow; rm /etc/group;"
                         " mkdir /home/intruder; echo x >/var/log/tvc-intruder; test \"$TVC_SANDBOX\" = 1 && exit 3'"),
              "3 ");
    EXPECT_EQ(runSandbox("-- true", true),
              "125 tvc-sandbox: cannot create the device sandbox: needs root (running as uid 65534)\n");
    EXPECT_EQ(runSandbox("--fallback sh -c 'echo \"${TVC_SANDBOX-unset} $TVC_SANDBOX_ERROR\"'", true),
              "0 unset needs root (running as uid 65534)\n");
    expectDescribedFilesIn("/etc");
    EXPECT_EQ(ownerAndMode("/home/intruder") + " " + ownerAndMode("/var/log/tvc-intruder"), "missing missing");
}

}  // namespace
