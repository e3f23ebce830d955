// The launcher (its identity step: identity_test.cpp), shell quoting and base64.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <systemutilities/Base64.h>
#include <systemutilities/ScriptLauncher.h>

using namespace systemutilities;

namespace {

bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

TEST(ScriptLauncher, ExecReturnsTheOutputWithoutItsLastNewlineAndQuotedNamesAsOneUnchangedWord) {
    std::vector<std::pair<std::string, std::string>> cases = {
        {"printf 'a\\nb\\n'", "a\nb"},
        {"printf 'a\\nb'", "ab"},
        {"printf 'a\\n\\n'", "a\n"},
        {"true", ""},
        {"echo out; exit 3", "out"},  // the status is not looked at
        {"head -c 1000 /dev/zero | tr '\\0' x; echo; echo z", std::string(1000, 'x') + "\nz"},  // long lines
    };
    for (const std::string name : {"two  spaces\tand tab", "single'quote", "''", "a'b\"c\\d$e`f;g", "new\nline",
                                   "$(id)", "-n", "", "*", "~root", "trailing\\"})
        cases.emplace_back("set -- " + shellQuote(name) + "; printf '%s %s\\n' $# \"$1\"", "1 " + name);
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(ScriptLauncher::exec(cases[i].first, i % 2 == 0), cases[i].second) << cases[i].first;
    EXPECT_TRUE(noChildren());
    EXPECT_THROW(shellQuote(std::string("a\0b", 3)), std::invalid_argument);
}

TEST(ScriptLauncher, StreamsReportTheirOwnStatusAndNoOtherChildHoldsThem) {
    FILE* writing = ScriptLauncher::PopenWithoutPerm("[ \"$(cat)\" = 'to the child' ] && exit 3", "w");
    // Had this child inherited the first one's write end, cat would wait until sleep ended.
    FILE* other = ScriptLauncher::PopenWithoutPerm("exec sleep 5", "w");
    ASSERT_TRUE(writing != nullptr && other != nullptr);
    std::fputs("to the child\n", writing);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WEXITSTATUS(ScriptLauncher::Pclose(writing)), 3);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    kill(ScriptLauncher::m_pids[fileno(other)], SIGKILL);
    ScriptLauncher::Pclose(other);

    FILE* foreign = std::fopen("/dev/null", "w");  // likely on a descriptor number a launched stream had
    const int foreignFd = fileno(foreign);
    EXPECT_EQ(ScriptLauncher::Pclose(foreign), -1);
    EXPECT_NE(fcntl(foreignFd, F_GETFD), -1);  // still open
    EXPECT_EQ(std::fclose(foreign), 0);
    EXPECT_EQ(ScriptLauncher::Popen("echo x", "x"), nullptr);  // fdopen refuses the mode
    EXPECT_TRUE(noChildren());
}

// The checks below run in fresh processes; the exit code names the check that failed.

// Launches with the descriptor table sized under a lowered limit, with standard input and output
// closed (the pipe's child end then already has its number in the child), and with the table full.
int launchAtTheEdgesOfTheTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 128) return 2;
    rlimit lowered = limit;
    lowered.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) return 3;
    ScriptLauncher::exec("true", false);  // sizes the table: 64 entries
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 4;
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (ScriptLauncher::exec("echo x", false) != "x") return 5;
    for (int fd = 0; fd != -1 && fd < 63;) fd = open("/dev/null", O_RDWR);  // every number below 64
    if (ScriptLauncher::PopenWithoutPerm("echo x", "r") != nullptr) return 6;
    if (ScriptLauncher::Pclose(fdopen(fcntl(0, F_DUPFD, 100), "r")) != -1) return 7;  // beyond the table
    return noChildren() ? 0 : 8;
}

// A signal that reaches a child before it runs the command finds the default action, never the
// host's handler (in a child that may still hold root and shares the host's buffers): SIGWINCH's
// handler reports a run in a child.  The command gets the caller's mask, which the caller keeps.
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
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR1);  // bit 10 of SigBlk
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    if (ScriptLauncher::exec("grep SigBlk /proc/self/status | cut -f2", true) != "0000000000000200") return 4;
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        while (!done) kill(0, SIGWINCH);
    });
    for (int i = 0; i < 300; ++i) ScriptLauncher::exec("true", i % 2 == 0);
    done = true;
    sender.join();
    char stray;
    if (read(g_strayRuns[0], &stray, 1) == 1) return 1;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    if (!sigismember(&mask, SIGUSR1) || sigismember(&mask, SIGTERM)) return 5;
    return noChildren() ? 0 : 3;  // an interrupted wait that gave up leaves a child unreaped
}

TEST(ScriptLauncherDeathTest, InFreshProcesses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(launchAtTheEdgesOfTheTable()), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(_exit(launchUnderSignals()), testing::ExitedWithCode(0), "");
}

std::string decode(const std::string& s) { return base64_decode(s.data(), static_cast<unsigned int>(s.size())); }

TEST(Base64, BothWays) {
    // RFC 4648's vectors, from prefixes of one buffer: the encoder reads no further than told.
    const unsigned char* foobar = reinterpret_cast<const unsigned char*>("foobar");
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (unsigned int length = 0; length <= 6; ++length) {
        EXPECT_EQ(base64_encode(foobar, length), coded[length]);
        EXPECT_EQ(decode(coded[length]), std::string("foobar", length));
        base64_cleanup();  // the next decode builds the table again
    }
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    EXPECT_EQ(decode(base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), 256)), bytes);
    for (const char* broken : {"Zm9vY", "Zg", "Zm9vYmF"}) EXPECT_EQ(decode(broken), "") << broken;
}

}  // namespace
