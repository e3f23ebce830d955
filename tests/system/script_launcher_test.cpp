#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <systemutilities/ScriptLauncher.h>

using systemutilities::ScriptLauncher;
using systemutilities::shellQuote;

namespace {

// True when the process has no child left, running or to be reaped.
bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

TEST(ScriptLauncher, ExecReturnsTheOutputWithoutItsLastNewline) {
    const struct {
        const char* command;
        std::string output;
    } cases[] = {
        {"printf 'a\\nb\\n'", "a\nb"},
        {"printf 'a\\nb'", "ab"},
        {"printf 'a\\n\\n'", "a\n"},
        {"true", ""},
        {"echo out; exit 3", "out"},  // the status is not looked at
        {"head -c 1000 /dev/zero | tr '\\0' x; echo; echo z", std::string(1000, 'x') + "\nz"},  // long lines
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
    auto statusOf = [](FILE* stream) {
        while (stream != nullptr && std::fgetc(stream) != EOF) {
        }
        return WEXITSTATUS(ScriptLauncher::Pclose(stream));
    };
    EXPECT_EQ(statusOf(ScriptLauncher::PopenWithoutPerm("exit 3", "r")), 3);
    EXPECT_EQ(statusOf(ScriptLauncher::Popen("/nonexistent/command 2>/dev/null", "r")), 127);
    FILE* foreign = std::tmpfile();  // likely on a descriptor number a launched stream had
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
    std::thread([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &mask, nullptr), 0);
        // The command runs under the caller's mask (SIGUSR1 is bit 10), not the launcher's own.
        EXPECT_EQ(ScriptLauncher::exec("grep SigBlk /proc/self/status | cut -f2", true), "0000000000000200");
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
        EXPECT_TRUE(sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGUSR2) && !sigismember(&mask, SIGTERM));
    }).join();
}

// The checks below run in fresh processes (death-test style "threadsafe" re-executes the
// binary); the exit code names the check that failed.

// Launches with the descriptor table first sized under a lowered limit, with standard input and
// output closed, and with no number left inside the table.
int launchAtTheEdgesOfTheTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 128) return 2;
    rlimit lowered = limit;
    lowered.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) return 3;
    ScriptLauncher::exec("true", false);  // sizes the table: 64 entries
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 4;
    // The pipe's child end then already has the number it is to take in the child.
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (ScriptLauncher::exec("echo x", false) != "x") return 5;
    for (int fd = 0; fd != -1 && fd < 63;) fd = open("/dev/null", O_RDWR);  // every number below 64
    if (ScriptLauncher::PopenWithoutPerm("echo x", "r") != nullptr) return 6;
    try {
        ScriptLauncher::exec("echo x", true);
        return 7;
    } catch (const std::runtime_error& e) {
        if (std::string(e.what()) != "popen() failed!") return 8;
    }
    if (ScriptLauncher::Pclose(fdopen(fcntl(0, F_DUPFD, 100), "r")) != -1) return 9;  // beyond the table
    return noChildren() ? 0 : 10;
}

// A signal that reaches a child before it runs the command finds the default action, never
// the host's handler (which would run in a child that may still hold root and shares the
// host's buffers).  SIGWINCH is ignored by default; the handler reports a run in a child.
int g_hostPid = 0;
int g_strayRuns[2];

int launchUnderSignals() {
    if (setpgid(0, 0) != 0 || pipe2(g_strayRuns, O_NONBLOCK) != 0) return 2;  // signals stay in this group
    g_hostPid = getpid();
    struct sigaction host {};
    host.sa_handler = [](int) {
        if (getpid() != g_hostPid) (void)!write(g_strayRuns[1], "x", 1);
    };
    host.sa_flags = 0;  // no SA_RESTART: the launcher's waits see EINTR and must retry
    sigaction(SIGWINCH, &host, nullptr);
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        while (!done) kill(0, SIGWINCH);
    });
    for (int i = 0; i < 300; ++i) ScriptLauncher::exec("true", i % 2 == 0);
    done = true;
    sender.join();
    char stray;
    if (read(g_strayRuns[0], &stray, 1) == 1) return 1;
    return noChildren() ? 0 : 3;  // an interrupted wait that gave up leaves a child unreaped
}

TEST(ScriptLauncherDeathTest, InFreshProcesses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(launchAtTheEdgesOfTheTable()), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(_exit(launchUnderSignals()), testing::ExitedWithCode(0), "");
}

TEST(ShellQuote, HostileNamesReachTheCommandAsOneUnchangedWord) {
    const std::vector<std::string> names{"two  spaces\tand tab",
                                         "single'quote",
                                         "''",
                                         "a'b\"c\\d$e`f;g",
                                         "new\nline",
                                         "$(id)",
                                         "-n",
                                         "",
                                         "*",
                                         "~root",
                                         "trailing\\"};
    for (const std::string& name : names) {
        const std::string quoted = shellQuote(name);
        // The printed newline is the one exec removes; one in the name itself stays.
        EXPECT_EQ(ScriptLauncher::exec("printf '%s\\n' " + quoted, true), name) << quoted;
        EXPECT_EQ(ScriptLauncher::exec("set -- " + quoted + "; echo $#", false), "1") << quoted;
    }
    EXPECT_THROW(shellQuote(std::string("a\0b", 3)), std::invalid_argument);
}

}  // namespace
