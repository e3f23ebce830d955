#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <optional>
#include <stdexcept>

#include <systemutilities/ScriptLauncher.h>

#include "ThreadIdentity.h"

using systemutilities::ScriptLauncher;
using systemutilities::shellQuote;
using namespace tvc::test;

namespace {

// The whole output of a stream, then Pclose's result.
int drainAndClose(FILE* stream, std::string* output = nullptr) {
    if (stream == nullptr) return -2;
    std::string text;
    for (int c; (c = std::fgetc(stream)) != EOF;) text += static_cast<char>(c);
    if (output != nullptr) *output = text;
    return ScriptLauncher::Pclose(stream);
}

// True when the process has no child left, running or to be reaped.
bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

TEST(ScriptLauncher, ExecReturnsTheOutputWithoutItsLastNewline) {
    const struct {
        const char* command;
        std::string output;
    } cases[] = {
        {"printf 'a\\nb\\n'", "a\nb"}, {"printf 'a\\nb'", "ab"}, {"printf ab", "ab"}, {"printf 'a\\n\\n'", "a\n"},
        {"true", ""}, {"/nonexistent/command 2>/dev/null", ""},
        {"echo out; exit 3", "out"},  // the status is not looked at
        {"head -c 1000 /dev/zero | tr '\\0' x; echo; head -c 127 /dev/zero | tr '\\0' y; echo; echo z",
         std::string(1000, 'x') + "\n" + std::string(127, 'y') + "\nz"},  // lines of several pieces
    };
    // Several threads at once, each running another command at a time: each gets its own output.
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&cases, t] {
            for (size_t i = 0; i < std::size(cases); ++i) {
                const auto& c = cases[(i + t) % std::size(cases)];
                EXPECT_EQ(ScriptLauncher::exec(c.command, t % 2 == 0), c.output) << c.command;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(noChildren());
}

TEST(ScriptLauncher, PcloseReportsTheWaitStatusOfItsOwnStreamsOnly) {
    EXPECT_EQ(WEXITSTATUS(drainAndClose(ScriptLauncher::PopenWithoutPerm("exit 3", "r"))), 3);
    EXPECT_EQ(WEXITSTATUS(drainAndClose(ScriptLauncher::Popen("/nonexistent/command 2>/dev/null", "r"))), 127);

    FILE* foreign = std::tmpfile();
    ASSERT_NE(foreign, nullptr);
    EXPECT_EQ(ScriptLauncher::Pclose(foreign), -1);
    EXPECT_EQ(ScriptLauncher::Pclose(nullptr), -1);
    EXPECT_GE(std::fputs("still open", foreign), 0);
    EXPECT_EQ(std::fclose(foreign), 0);

    EXPECT_EQ(ScriptLauncher::Popen("echo x", "x"), nullptr);  // fdopen refuses the mode
    EXPECT_TRUE(noChildren());
}

TEST(ScriptLauncher, WriteModeFeedsStandardInputAndNoOtherChildHoldsTheStream) {
    FILE* stream = ScriptLauncher::PopenWithoutPerm("[ \"$(cat)\" = 'to the child' ]", "w");
    ASSERT_NE(stream, nullptr);
    // Had this child inherited the first stream's write end, cat would wait for the end of its
    // input until sleep ended.
    FILE* other = ScriptLauncher::PopenWithoutPerm("exec sleep 5", "w");
    ASSERT_NE(other, nullptr);
    std::fputs("to the child\n", stream);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ScriptLauncher::Pclose(stream), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    kill(ScriptLauncher::m_pids[fileno(other)], SIGKILL);
    ScriptLauncher::Pclose(other);
}

TEST(ScriptLauncher, CallerKeepsItsSignalMask) {
    inThread([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &mask, nullptr), 0);
        EXPECT_EQ(ScriptLauncher::exec("echo x", true), "x");
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
        EXPECT_TRUE(sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGUSR2) && !sigismember(&mask, SIGTERM));
    });
}

// In a fresh process (death-test style "threadsafe" re-executes the binary), so that the table
// is first sized there under a lowered descriptor limit.  The exit code names the failed check.
int launchBeyondTheTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 128) return 2;
    rlimit lowered = limit;
    lowered.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) return 3;
    ScriptLauncher::exec("true", false);  // sizes the table: 64 entries
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 4;
    for (int fd = 0; fd != -1 && fd < 63;) fd = dup(0);  // occupies every descriptor below 64
    if (ScriptLauncher::PopenWithoutPerm("echo x", "r") != nullptr) return 5;
    try {
        ScriptLauncher::exec("echo x", true);
        return 6;
    } catch (const std::runtime_error& e) {
        if (std::string(e.what()) != "popen() failed!") return 7;
    }
    return noChildren() ? 0 : 8;
}

TEST(ScriptLauncherDeathTest, DescriptorBeyondTheTableIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(launchBeyondTheTable()), testing::ExitedWithCode(0), "");
}

pid_t g_configuringProcess = 0;

// The child's /proc/self/status: ids, groups, and how many of CapPrm and CapEff are empty.
std::string childStatus(unsigned int id, const char* groups, int emptyCaps) {
    const std::string ids = "\t" + std::to_string(id);
    return "Uid:" + ids + ids + ids + ids + "\nGid:" + ids + ids + ids + ids + "\nGroups:\t" + groups + "\n" +
           std::to_string(emptyCaps);
}

TEST(ScriptLauncher, CommandRunsWithTheThreadsEffectiveIdsAndTheAccountsGroupsOnly) {
    TVC_REQUIRE_ROOT();
    // Asked in the child, this configuration would let the command keep its root ids.
    g_configuringProcess = getpid();
    ScopedRootProfile parentOnly([] { return getpid() == g_configuringProcess; });
    const char* command =
        "grep -E '^(Uid|Gid|Groups):' /proc/self/status | sed 's/ *$//';"
        "grep -cE '^Cap(Prm|Eff):[[:space:]]0+$' /proc/self/status";
    const struct {
        unsigned int real, effective, saved;
        std::vector<unsigned int> groups;
        std::optional<std::string> output;  // none: the launch fails
    } cases[] = {
        // operator with part of its groups, viewer with root's and another profile's: each gets
        // exactly its account's groups from the sample group file.
        {0, 10001, 0, {4201, 10001}, childStatus(10001, "4102 4103 4104 4200 4201 10001", 2)},
        {0, 10002, 0, {0, 4200}, childStatus(10002, "4102 4104 4201 10002", 2)},
        {0, 3000, 0, {0, 4200}, childStatus(3000, "3000", 2)},  // no account: its group id alone
        {0, 0, 0, {4200, 10001}, childStatus(0, "4200 10001", 0)},  // root keeps its groups
        {10001, 10001, 10001, {4201}, std::nullopt},  // no root id left to give up
    };
    for (const auto& c : cases)
        inThread([&c, command] {
            SCOPED_TRACE(c.effective);
            becomeThread(c.real, c.effective, c.saved, c.groups);
            if (c.output) {
                EXPECT_EQ(ScriptLauncher::exec(command, true), *c.output);
            } else {
                errno = 0;
                EXPECT_EQ(ScriptLauncher::Popen("echo must-not-run", "r"), nullptr);
                EXPECT_EQ(errno, EPERM);
                EXPECT_THROW(ScriptLauncher::exec("echo must-not-run", true), std::runtime_error);
                EXPECT_TRUE(noChildren());  // reaped
            }
            // The calling thread itself keeps its ids, and so its way back to root.
            EXPECT_EQ(myIds().uid, triple(c.real, c.effective, c.saved));
        });
    inThread([] {
        becomeThread(0, 10001, 0, {});
        // Without the identity step the child keeps the real and saved root ids, and the
        // shell, finding real and effective ids differ, even goes back to the real one: root.
        EXPECT_EQ(ScriptLauncher::exec("grep '^Uid:' /proc/self/status | cut -f2", false), "0");
    });
    EXPECT_EQ(ScriptLauncher::exec("id -u", true), "0");
}

TEST(ShellQuote, HostileNamesReachTheCommandAsOneUnchangedWord) {
    const std::vector<std::string> names{"two  spaces\tand tab", "single'quote", "''", "a'b\"c\\d$e`f;g", "new\nline",
                                         "$(id)", "-n", "", "*", "~root", "trailing\\"};
    for (const std::string& name : names) {
        const std::string quoted = shellQuote(name);
        // The printed newline is the one exec removes; one in the name itself stays.
        EXPECT_EQ(ScriptLauncher::exec("printf '%s\\n' " + quoted, true), name) << quoted;
        EXPECT_EQ(ScriptLauncher::exec("set -- " + quoted + "; echo $#", false), "1") << quoted;
    }
    EXPECT_THROW(shellQuote(std::string("a\0b", 3)), std::invalid_argument);
}

}  // namespace
