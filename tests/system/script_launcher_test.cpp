#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <systemutilities/ScriptLauncher.h>

#include "ThreadIdentity.h"

using systemutilities::ScriptLauncher;
using systemutilities::shellQuote;
using namespace tvc::test;

namespace {

// The whole output of a stream.
std::string drain(FILE* stream) {
    std::string text;
    int c;
    while ((c = std::fgetc(stream)) != EOF) text += static_cast<char>(c);
    return text;
}

// True when the process has no child left to reap (nor a running one).
bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

TEST(ScriptLauncherExec, OnlyTheLastNewlineIsRemoved) {
    EXPECT_EQ(ScriptLauncher::exec("printf 'a\\nb\\n'", false), "a\nb");
    EXPECT_EQ(ScriptLauncher::exec("printf 'a\\nb'", false), "ab");
    EXPECT_EQ(ScriptLauncher::exec("printf ab", false), "ab");
    EXPECT_EQ(ScriptLauncher::exec("printf 'a\\n\\n'", false), "a\n");
    EXPECT_EQ(ScriptLauncher::exec("true", false), "");
}

TEST(ScriptLauncherExec, LongLinesComeBackWhole) {
    const std::string line1(1000, 'x');
    const std::string line2(127, 'y');  // exactly one buffer's worth
    const std::string command =
        "head -c 1000 /dev/zero | tr '\\0' x; echo; head -c 127 /dev/zero | tr '\\0' y; echo; echo z";
    EXPECT_EQ(ScriptLauncher::exec(command, true), line1 + "\n" + line2 + "\nz");
}

TEST(ScriptLauncherExec, ExitStatusIsIgnoredButPcloseReportsIt) {
    EXPECT_EQ(ScriptLauncher::exec("echo out; exit 3", false), "out");
    FILE* stream = ScriptLauncher::PopenWithoutPerm("echo out; exit 3", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(drain(stream), "out\n");
    int status = ScriptLauncher::Pclose(stream);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_TRUE(noChildren());
}

TEST(ScriptLauncherExec, MissingCommandGivesEmptyOutputAndStatus127) {
    EXPECT_EQ(ScriptLauncher::exec("/nonexistent/command 2>/dev/null", true), "");
    FILE* stream = ScriptLauncher::Popen("/nonexistent/command 2>/dev/null", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(drain(stream), "");
    EXPECT_EQ(WEXITSTATUS(ScriptLauncher::Pclose(stream)), 127);
}

TEST(ScriptLauncherPclose, ForeignStreamIsRefusedAndLeftOpen) {
    FILE* foreign = std::tmpfile();
    ASSERT_NE(foreign, nullptr);
    EXPECT_EQ(ScriptLauncher::Pclose(foreign), -1);
    EXPECT_EQ(ScriptLauncher::Pclose(nullptr), -1);
    EXPECT_GE(std::fputs("still open", foreign), 0);
    EXPECT_EQ(std::fclose(foreign), 0);

    // A stream that was already closed through Pclose is unknown from then on.
    FILE* stream = ScriptLauncher::PopenWithoutPerm("true", "r");
    ASSERT_NE(stream, nullptr);
    const int fd = fileno(stream);
    EXPECT_EQ(ScriptLauncher::Pclose(stream), 0);
    EXPECT_EQ(ScriptLauncher::m_pids[fd], 0);
}

TEST(ScriptLauncherPopen, WriteModeFeedsStandardInput) {
    char path[] = "/tmp/tvc-launcher-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_NE(fd, -1);
    close(fd);
    FILE* stream = ScriptLauncher::PopenWithoutPerm(("cat > " + shellQuote(path)).c_str(), "w");
    ASSERT_NE(stream, nullptr);
    std::fputs("to the child\n", stream);
    EXPECT_EQ(ScriptLauncher::Pclose(stream), 0);
    EXPECT_EQ(ScriptLauncher::exec("cat " + shellQuote(path), false), "to the child");
    unlink(path);
}

TEST(ScriptLauncherPopen, AnotherCommandDoesNotHoldAStreamOpen) {
    // If the second child inherited the first stream's write end, the first cat would wait for
    // the end of its input until the second command ended.
    FILE* first = ScriptLauncher::PopenWithoutPerm("cat >/dev/null", "w");
    ASSERT_NE(first, nullptr);
    FILE* second = ScriptLauncher::PopenWithoutPerm("exec sleep 5", "w");
    ASSERT_NE(second, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ScriptLauncher::Pclose(first), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    kill(ScriptLauncher::m_pids[fileno(second)], SIGKILL);
    ScriptLauncher::Pclose(second);
}

TEST(ScriptLauncherPopen, ThreadsLaunchingAtOnceEachGetTheirOwnOutput) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 25; ++i) {
                const std::string word = std::to_string(t) + "-" + std::to_string(i);
                EXPECT_EQ(ScriptLauncher::exec("echo " + word, t % 2 == 0), word);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(noChildren());
}

TEST(ScriptLauncherPopen, FailuresLeaveNoChildBehind) {
    EXPECT_EQ(ScriptLauncher::Popen("echo x", "x"), nullptr);  // fdopen refuses the mode
    EXPECT_EQ(ScriptLauncher::Popen(nullptr, "r"), nullptr);
    EXPECT_TRUE(noChildren());
}

// Runs in a fresh process (death-test style "threadsafe" re-executes the binary) so that the
// table is first sized there, under a lowered descriptor limit that is raised again afterwards.
void launchBeyondTheTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 128) _exit(2);
    rlimit lowered = limit;
    lowered.rlim_cur = 64;
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) _exit(3);
    ScriptLauncher::exec("true", false);  // sizes the table: 64 entries
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(4);
    std::vector<int> filler;  // occupies every descriptor below 64
    for (int fd = dup(0); fd != -1 && fd < 63; fd = dup(0)) filler.push_back(fd);
    FILE* stream = ScriptLauncher::PopenWithoutPerm("echo x", "r");
    if (stream != nullptr) _exit(5);
    try {
        ScriptLauncher::exec("echo x", true);
        _exit(6);
    } catch (const std::runtime_error& e) {
        if (std::string(e.what()) != "popen() failed!") _exit(7);
    }
    if (!noChildren()) _exit(8);
    for (int fd : filler) close(fd);
    if (ScriptLauncher::exec("echo x", false) != "x") _exit(9);  // below the table size again
    _exit(0);
}

TEST(ScriptLauncherPopenDeathTest, DescriptorBeyondTheTableIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(launchBeyondTheTable(), testing::ExitedWithCode(0), "");
}

TEST(ScriptLauncherIdentity, CommandRunsWithTheThreadsEffectiveIdsOnly) {
    TVC_REQUIRE_ROOT();
    std::thread([] {
        becomeThread(0, 10001, 0, {4201, 10001});
        const std::string out = ScriptLauncher::exec(
            "id -u; id -ru; id -g; id -rg; grep -E '^(Uid|Gid|CapPrm|CapEff):' /proc/self/status", true);
        EXPECT_EQ(out,
                  "10001\n10001\n10001\n10001\n"
                  "Uid:\t10001\t10001\t10001\t10001\nGid:\t10001\t10001\t10001\t10001\n"
                  "CapPrm:\t0000000000000000\nCapEff:\t0000000000000000");
        // The calling thread itself keeps its way back to root.
        EXPECT_EQ(myIds().uid, triple(0, 10001, 0));
        EXPECT_EQ(myIds().gid, triple(0, 10001, 0));
        // Without the identity step the child keeps the real and saved root ids, and the
        // shell, finding real and effective ids differ, even goes back to the real one: root.
        EXPECT_EQ(ScriptLauncher::exec("grep '^Uid:' /proc/self/status | cut -f2", false), "0");
    }).join();
    EXPECT_EQ(ScriptLauncher::exec("id -u", true), "0");
}

TEST(ScriptLauncherIdentity, ChildThatCannotDropEndsWith127) {
    TVC_REQUIRE_ROOT();
    std::thread([] {
        // No root left to give up: the child's identity step fails before the shell starts.
        becomeThread(10001, 10001, 10001, {});
        FILE* stream = ScriptLauncher::Popen("echo must-not-run", "r");
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(drain(stream), "");
        const int status = ScriptLauncher::Pclose(stream);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 127);
    }).join();
}

TEST(ShellQuote, HostileNamesReachTheCommandUnchanged) {
    const std::vector<std::string> names{
        "plain",        "with space",    "two  spaces\tand tab", "double\"quote", "back\\slash",
        "dollar$HOME",  "back`id`tick",  "single'quote",         "''",            "semi;colon",
        "new\nline",    "$(id)",         "-n",                   "--help",        "",
        "a'b\"c\\d$e`f", "*",           "~root",                 "!x",            "trailing\\",
    };
    for (const std::string& name : names) {
        const std::string quoted = shellQuote(name);
        // The printed newline is the one exec removes; one in the name itself stays.
        EXPECT_EQ(ScriptLauncher::exec("printf '%s\\n' " + quoted, true), name) << quoted;
        EXPECT_EQ(ScriptLauncher::exec("set -- " + quoted + "; echo $#", false), "1") << quoted;
    }
    EXPECT_EQ(shellQuote("it's"), "'it'\\''s'");
    EXPECT_THROW(shellQuote(std::string("a\0b", 3)), std::invalid_argument);
}

}  // namespace
