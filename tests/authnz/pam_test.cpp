// Logins and password changes through real libpam and real modules in the device sandbox, from
// a thread acting as the web server's account (www-data), as a device's web server calls them:
// every call must leave that thread with exactly the identity it had.
#include <crypt.h>
#include <libintl.h>
#include <locale.h>
#include <shadow.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <usermanagement/UMException.h>
#include <usermanagement/Utilities.h>

#include "sampledevice/SampleDevice.h"
#include "support/AccountSupport.h"

using namespace usermanagement;
using authnz::WebPam;

namespace {

using tvc::test::outcome;
using tvc::test::threadIds;
using PamTest = tvc::test::AccountsTest;

// Runs `body` in a thread acting as www-data; the thread must end every call as it started it.
void asWebServer(const std::function<void(const std::function<void()>& sameIdentity)>& body) {
    std::thread([&] {
        SystemPermission permission;
        permission.setUserPermission("www-data");
        const std::string before = threadIds();
        body([&] { EXPECT_EQ(threadIds(), before); });
    }).join();
}

std::shared_ptr<WebPam> session(const std::string& user, WebPam::PamType type) {
    return std::shared_ptr<WebPam>(WebPam::GetPAM(user, "192.0.2.7", type));
}

// Logins through the sample device's "login" service, whose tally module counts every failure
// and refuses an account at the limit, the one the library is configured with.
TEST_F(PamTest, LoginsPassFailExpireAndLockAtTheLimitWithOneLockEvent) {
    tvc::test::removeEntry("/etc/shadow", "operator");
    tvc::test::addLines("/etc/shadow", "operator:" + tvc::sample::sampleDevice().account("operator").shadow +
                                           ":0:0:99999:7:::\n");  // changed on day 0: expired
    const std::string invalid = "200 Invalid Credentials | Authentication failure";
    const struct {
        const char* user;
        const char* password;
        std::string expected;  // the login, then the account check when the login passed
    } cases[] = {
        {"viewer", "Viewer#2026", "ok ok"},
        {"viewer", "Wrong#1", invalid},
        {"viewer", "Wrong#2", invalid},
        {"viewer", "Wrong#3", invalid},      // reaches the limit: the lock event
        {"viewer", "Wrong#4", invalid},      // beyond it: no event
        {"viewer", "Viewer#2026", invalid},  // locked: the right password is refused too
        {"operator", "Operator#2026", "ok 301 ExpiredCredentials | PAM: pamAccount 12 "},
        {"root", "Root#2026", "0  | "},  // refused before PAM is asked
        {"nosuch", "Nosuch#2026", "200 PAM:User not found | "},
    };
    asWebServer([&](const std::function<void()>& sameIdentity) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.user) + " " + c.password);
            const auto pam = session(c.user, WebPam::WebLogin);
            std::string result = tvc::test::described([&] { pam->pamAuthentication(c.password); });
            if (result == "ok") result += " " + tvc::test::described([&] { pam->pamAccount(); });
            EXPECT_EQ(result.substr(0, c.expected.size()), c.expected);
            sameIdentity();
        }
    });
    ASSERT_EQ(sink.messages.size(), 1u);
    EXPECT_EQ(sink.messages[0].ip, "192.0.2.7");
    EXPECT_EQ(takeEvents(), "9 User account - locked <viewer>\n");  // a warning
}

// Eight logins to one account at once, two failures short of the limit, each thread acting as
// the web server: right passwords are all accepted and clear the count, which a reader never
// sees reach the limit meanwhile; wrong ones are all counted, the account locks at the limit
// with exactly one "locked" event, and every client gets "Invalid Credentials".
TEST_F(PamTest, ConcurrentLoginsToOneAccountAreCountedExactly) {
    const struct {
        const char* password;
        std::string expected;  // every thread's answer: the login, then the account check
        int highest, count;    // the highest count a reader saw meanwhile, the count afterwards
        std::string events;
    } cases[] = {
        {"Viewer#2026", "ok ok", 2, 0, ""},
        {"Wrong#2026", "200 Invalid Credentials", 10, 10, "9 User account - locked <viewer>\n"},
    };
    const auto count = [] { return utilities::getLockCount(10002, "/var/log/tallylog"); };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.password);
        unlink("/var/log/tallylog");
        for (int i = 0; i < 2; ++i) outcome([] { session("viewer", WebPam::WebLogin)->pamAuthentication("Wrong#1"); });
        std::atomic<int> waiting{8}, highest{count()};
        std::vector<std::string> answers(8);
        std::vector<std::thread> threads;
        for (std::string& answer : answers)
            threads.emplace_back([&] {
                asWebServer([&](const std::function<void()>& sameIdentity) {
                    const auto pam = session("viewer", WebPam::WebLogin);
                    for (--waiting; waiting > 0;) std::this_thread::yield();  // all start together
                    answer = outcome([&] { pam->pamAuthentication(c.password); });
                    if (answer == "ok") answer += " " + outcome([&] { pam->pamAccount(); });
                    sameIdentity();
                });
            });
        std::thread reader([&] {
            while (waiting >= 0) highest = std::max(highest.load(), count());
        });
        for (std::thread& thread : threads) thread.join();
        waiting = -1;
        reader.join();
        EXPECT_EQ(answers, std::vector<std::string>(8, c.expected));
        EXPECT_EQ(std::max(highest.load(), count()), c.highest);
        EXPECT_EQ(count(), c.count);
        EXPECT_EQ(takeEvents(), c.events);
    }
}

// A login killed while its password is checked has been counted, and its hold on the record
// dies with it: the next login is settled as usual.
TEST_F(PamTest, ALoginKilledDuringTheCheckStaysCountedAndHoldsNothing) {
    tvc::test::writeFile("/etc/tvc-kill.sh", "#!/bin/sh\nkill -9 $PPID\n");
    chmod("/etc/tvc-kill.sh", 0755);
    tvc::test::writeFile("/etc/pam.d/tvc-kill",
                         "auth requisite /etc/tvc-pam/pam_tvc_tally.so preauth deny=3\n"
                         "auth required pam_exec.so /etc/tvc-kill.sh\n");
    authnz::Options options{1, 1};
    EXPECT_EXIT((alarm(10), WebPam("tvc-kill", "viewer", "", options).pamAuthentication("Viewer#2026"), _exit(0)),
                testing::KilledBySignal(SIGKILL), "");
    EXPECT_EQ(utilities::getLockCount(10002, "/var/log/tallylog"), 1);
    EXPECT_EQ(outcome([] { session("viewer", WebPam::WebLogin)->pamAuthentication("Viewer#2026"); }), "ok");
    EXPECT_EQ(utilities::getLockCount(10002, "/var/log/tallylog"), 0);
}

// The conversation rules, through real libpam and a module that says what its arguments script
// ("call" starts the next conversation call; the module reports the answers of each call).
TEST_F(PamTest, ConversationsFollowTheirRules) {
    const std::string report = "/var/log/tvc-script.report";
    std::string xs = "x", dashes = "-";  // 32 of each, "," and "|" between them
    for (int i = 1; i < 32; ++i) xs += ",x", dashes += "|-";
    const struct {
        const char* phase;   // auth, account (before any login: the storing conversation), password
        const char* script;  // pam_tvc_script.so arguments
        std::string expected, messages, answers;
    } cases[] = {
        {"auth", "off=Password: off=Password:", "ok", "", "rc=0 n=2 answers=pw|-"},  // once per call
        {"auth", "off=Password: call off=Password:", "200", "", "rc=0 n=1 answers=pw\nrc=20 n=1 answers=-"},
        {"auth", "info=a error=b info=", "ok", "a,b", "rc=0 n=3 answers=||"},
        {"auth", "on=Login:", "200", "", "rc=20 n=1 answers=-"},
        // PAM_MAX_NUM_MSG messages in one call are answered, one more is refused.
        {"auth", "info=x times=32", "ok", xs, "rc=0 n=32 answers=" + std::string(31, '|')},
        {"auth", "info=x times=33", "200", "", "rc=19 n=33 answers=" + dashes + "|-"},
        {"account", "info=a error=b", "ok", "b", "rc=0 n=2 answers=-|-"},
        {"account", "off=Password:", "3", "", "rc=19 n=1 answers=-"},
        {"password", "[info=Changing password] [off=CURRENT password:] [off=New password:] [off=Retype new password:]",
         "ok", "", "rc=0 n=4 answers=Changing password|pw|new|new"},
        {"password", "off=Current: call off=Current: result=authtok_err", "18", "Incorrect old password",
         "rc=0 n=1 answers=pw\nrc=20 n=1 answers=-"},
        // Whole texts of the rules only, whatever words they hold.
        {"password", "[error=too short, and in the dictionary] result=authtok_err", "20",
         "too short, and in the dictionary", "rc=20 n=1 answers=-"},
        {"password", "error=dictionary [error=3 DIGITS] result=authtok_err", "20", "3 DIGITS", "rc=20 n=2 answers=-|-"},
        {"password", "result=auth_err", "20", "Authentication failure", ""},  // PAM's text, no module text
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        tvc::test::writeFile(
            "/etc/pam.d/tvc-script",
            std::string(c.phase) + " required /etc/tvc-pam/pam_tvc_script.so report=" + report + " " + c.script + "\n");
        unlink(report.c_str());
        authnz::Options options{1, 1};
        WebPam pam("tvc-script", "viewer", "192.0.2.7", options);
        const std::string phase = c.phase;
        const std::string result = outcome([&] {
            if (phase == "auth") pam.pamAuthentication("pw");
            if (phase == "account") pam.pamAccount();
            if (phase == "password") pam.pamChauthtok("pw", "new");
        });
        EXPECT_EQ(result.substr(0, c.expected.size()), c.expected) << result;
        EXPECT_EQ(pam.getPamMessages(), c.messages);
        EXPECT_EQ(access(report.c_str(), F_OK) == 0 ? tvc::test::readFile(report) : "",
                  c.answers.empty() ? "" : c.answers + "\n");
    }
}

// A locale in which libpwquality's texts are translated (German), from the system or from the
// build's generated ones; null, with the reason, when there is none.
locale_t translatingLocale(std::string& reason) {
    unsetenv("LANGUAGE");  // would choose the texts' language instead of the locale
    locale_t german = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    if (german == nullptr) {
        setenv("LOCPATH", TVC_TEST_LOCALES, 1);
#if defined(__SANITIZE_ADDRESS__)
        __lsan_disable();  // glibc's newlocale keeps the search path it makes of LOCPATH
#endif
        german = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
#if defined(__SANITIZE_ADDRESS__)
        __lsan_enable();
#endif
    }
    if (german == nullptr) {
        reason = "no de_DE.UTF-8 locale, neither the system's nor in " TVC_TEST_LOCALES " (package locales)";
        return nullptr;
    }
    const char* probe = "The password is too short";
    const locale_t before = uselocale(german);
    const bool translated = std::string(dgettext("libpwquality", probe)) != probe;
    uselocale(before);
    if (translated) return german;
    freelocale(german);
    reason = "libpwquality's texts are not translated into German (package libpwquality-common)";
    return nullptr;
}

// Every password-quality rule the classification knows, fired by the real pam_pwquality: as a
// strength test (the stack stores nothing) or, for the rules that compare with the old password,
// as the account's own change through pam_unix, whose good change (last) stores the new hash.
// A host thread running in German gets the same codes as one in the C locale, and its locale
// back after every call.
TEST_F(PamTest, EachQualityRuleOfTheRealModuleGivesItsCodeInAnyLocaleAndAGoodChangeIsStored) {
    const struct {
        const char* options;  // of pam_pwquality, besides retry=1 enforce_for_root
        const char* user;
        const char* current;  // null: a strength test
        const char* password;
        int code;  // 0: accepted
    } cases[] = {
        {"minlen=12 dictcheck=0", "viewer", nullptr, "Ab1#xyz", 33},
        {"dcredit=-2 dictcheck=0", "viewer", nullptr, "Abcdef#x1q", 29},
        {"ucredit=-2 dictcheck=0", "viewer", nullptr, "Abcdef#x1q", 30},
        {"lcredit=-2 dictcheck=0", "viewer", nullptr, "ABCDEF#X1q", 31},
        {"ocredit=-2 dictcheck=0", "viewer", nullptr, "Abcdef#x1q", 32},
        {"minclass=4 dictcheck=0", "viewer", nullptr, "Abcdefgx1q", 35},
        {"maxrepeat=2 dictcheck=0", "viewer", nullptr, "Abccc#x1qz", 36},
        {"maxclassrepeat=3 dictcheck=0", "viewer", nullptr, "Abcdef#x1q", 37},
        {"maxsequence=3 dictcheck=0", "viewer", nullptr, "Xq#1234zkw", 38},
        {"dictcheck=0", "viewer", nullptr, "Ab#1221#bA", 23},
        {"dictcheck=0 usercheck=1", "tech", nullptr, "Xq#tech9Lz", 26},
        {"dictcheck=0 gecoscheck=1", "tech", nullptr, "Maintenance#4x", 27},
        {"dictcheck=0 badwords=acme", "viewer", nullptr, "Xq#acme9Lzw", 28},
        {"dictcheck=1", "viewer", nullptr, "password1#", 39},
        {"dictcheck=0", "viewer", "Viewer#2026", "Viewer#2026", 22},
        {"dictcheck=0", "viewer", "Viewer#2026", "vIEWER#2026", 22},
        {"dictcheck=0 difok=5", "viewer", "Viewer#2026", "Viewer#2027x", 25},
        {"dictcheck=0 usercheck=0", "viewer", "Viewer#2026", "2026Viewer#", 34},
        {"dictcheck=0", "viewer", "Wrong#2026", "Xk3#vQ9!mTz2", 18},  // wrong current password
        {"dictcheck=0", "viewer", "Viewer#2026", "Xk3#vQ9!mTz2", 0},
    };
    std::string missing;
    const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr), german = translatingLocale(missing);
    for (const locale_t locale : {cLocale, german}) {
        if (locale == nullptr) continue;
        tvc::test::restoreSampleDevice();  // the good change of the locale before
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.password) + (locale == german ? " in German" : ""));
            tvc::test::writeFile("/etc/pam.d/testpwd",
                                 std::string("password requisite pam_pwquality.so retry=1 enforce_for_root ") +
                                     c.options + "\npassword required " +
                                     (c.current ? "pam_unix.so use_authtok sha512\n" : "pam_permit.so\n"));
            asWebServer([&](const std::function<void()>& sameIdentity) {
                uselocale(locale);
                try {
                    session(c.user, WebPam::PasswordCheck)->pamChauthtok(c.current ? c.current : "", c.password);
                    EXPECT_EQ(c.code, 0) << "accepted";
                } catch (const UpdatePasswordException& e) {
                    EXPECT_EQ(e.getErrorId(), c.code) << e.what();
                }
                EXPECT_EQ(uselocale(nullptr), locale);
                sameIdentity();
            });
        }
    }
    const spwd* entry = getspnam("viewer");
    ASSERT_TRUE(entry != nullptr && std::string(entry->sp_pwdp).substr(0, 3) == "$6$");
    EXPECT_STREQ(crypt("Xk3#vQ9!mTz2", entry->sp_pwdp), entry->sp_pwdp);
    if (german != nullptr) return freelocale(german);
    if (std::getenv("CI") != nullptr && std::string(std::getenv("CI")) == "true") FAIL() << missing;
    GTEST_SKIP() << missing;
}

// The length limit is checked before PAM is asked: the service of type 7 does not exist.
TEST_F(PamTest, OverlongPasswordsNeverReachPam) {
    const std::string longest(255, 'x'), tooLong(256, 'x');
    asWebServer([&](const std::function<void()>& sameIdentity) {
        for (const auto& [current, next] : {std::pair{tooLong, longest}, {longest, tooLong}}) {
            const auto pam = session("viewer", static_cast<WebPam::PamType>(7));
            EXPECT_EQ(outcome([&] { pam->pamChauthtok(current.c_str(), next.c_str()); }), "19 ");
            EXPECT_EQ(pam->getPamMessages(), "Password too long");
        }
        const auto pam = session("viewer", static_cast<WebPam::PamType>(7));
        EXPECT_NE(outcome([&] { pam->pamChauthtok(longest.c_str(), longest.c_str()); }).substr(0, 3), "19 ");
        sameIdentity();
    });
}

// pam_unix takes the password-file lock to store the hash and would wait as long as another process
// holds it: the change fails instead.  A thread of the host reading account state meanwhile
// (updateState holds the lock for its read) must wait for the change at the library's gate, since
// lckpwdf fails at once while another thread of the process holds it; the library itself never
// holds the lock around the PAM call (the changes succeed with the lock free).
TEST_F(PamTest, AChangeFailsClearlyWhileAnotherProcessHoldsTheLockAndWaitsForAThreadOfItsOwn) {
    tvc::test::writeFile("/etc/pam.d/testpwd", "password required pam_unix.so sha512\n");
    const auto change = [](const char* current, const char* next) {
        return outcome([&] { session("viewer", WebPam::PasswordCheck)->pamChauthtok(current, next); });
    };
    // A file transaction held between its installs; timeout ends it should the change wait for it.
    std::FILE* holder = popen("timeout 60 " TVC_FILES_DRIVER " --hold remove guest", "re");
    int pid = 0;
    ASSERT_TRUE(holder != nullptr && std::fscanf(holder, "held %d", &pid) == 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(change("Viewer#2026", "Xk3#vQ9!mTz2").substr(0, 41), "11 pamChauthtok:password files locked by ");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    kill(pid, SIGKILL);
    tvc::test::finish(holder);
    tvc::test::restoreSampleDevice();  // guest, which the held transaction had removed from passwd

    std::atomic<bool> done{false};
    std::string read = "ok", changes;
    std::thread reader([&] {
        while (!done && read == "ok") read = outcome([] { User("admin").updateState(); });
    });
    asWebServer([&](const std::function<void()>&) {
        const char* passwords[] = {"Viewer#2026", "Xk3#vQ9!mTz2"};
        for (int i = 0; i < 10; ++i) changes += change(passwords[i % 2], passwords[(i + 1) % 2]) + " ";
    });
    done = true;
    reader.join();
    EXPECT_EQ(changes, "ok ok ok ok ok ok ok ok ok ok ");
    EXPECT_EQ(read, "ok");
}

}  // namespace
