// The transaction and what a failing, dying or contended one leaves behind.  System-call
// failures are injected into files_fault_driver with libfiu's fiu-run; the full disk is a real
// tmpfs; killed and concurrent writers are real processes.
#include <crypt.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <usermanagement/User.h>

#include "FilesTestSupport.h"
#include "foundation/Raise.h"
#include "support/AccountSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

const std::string kDriver = TVC_FILES_DRIVER;
constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";
const std::type_info& kSystem = typeid(UMSystemErrorException);

typedef FilesTest Transaction, Reliability;

TEST_F(Transaction, LockIsTakenOnceAndOnlyItsHolderReleasesIt) {
    {
        FileSystemUpdate holder(kShadow, kTmp, true);
        expectFailure([] { FileSystemUpdate second("/etc/passwd", "/etc/tmppassd", true); }, kSystem,
                      UMSystemError::FilesLocked, "FileSystemUpdate:password files locked (/etc/passwd)");
        // A lock-free transaction must not release the holder's lock.
        { FileSystemUpdate follower("/etc/passwd", "/etc/tmppassd", false); }
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_TRUE(lockIsFree());
}

// When the host's SIGALRM handler ran (CLOCK_MONOTONIC), 0 until it has.
volatile std::sig_atomic_t alarmed = 0;
timespec alarmedAt{};

// Another process holds the lock through lckpwdf: a transaction waits for it on its own thread,
// with no alarm signal, and fails with 11 at 15 seconds.  The host's own alarm, set before the
// wait, still goes off on time (lckpwdf replaced it with its own and cancelled it), and the host's
// other threads go on looking accounts up meanwhile.
TEST_F(Transaction, ALockOfAnotherProcessIsWaitedForWithoutSignals) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();  // before any thread of the test starts
    if (holder == 0) {
        char taken = lckpwdf() == 0 ? 'y' : 'n';
        (void)!write(ready[1], &taken, 1);
        for (;;) pause();
    }
    close(ready[1]);
    char taken = 0;
    ASSERT_TRUE(read(ready[0], &taken, 1) == 1 && taken == 'y');
    close(ready[0]);

    std::atomic<bool> done{false};
    std::atomic<int> lookups{0};
    std::thread reader([&] {
        // Should the wait never end, the holder goes after 30 seconds.
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!done && std::chrono::steady_clock::now() < giveUp)
            if (outcome([] { User("viewer"); }) == "ok") ++lookups;
        kill(holder, SIGKILL);
    });
    struct sigaction host {}, saved {};
    host.sa_handler = [](int) {
        clock_gettime(CLOCK_MONOTONIC, &alarmedAt);
        alarmed = 1;
    };
    sigaction(SIGALRM, &host, &saved);
    alarmed = 0;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    alarm(2);
    const std::string wait = outcome([] { FileSystemUpdate waiting(kShadow, kTmp, true); });
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const int lookupsMeanwhile = lookups;
    done = true;
    reader.join();
    waitpid(holder, nullptr, 0);
    alarm(0);
    sigaction(SIGALRM, &saved, nullptr);

    EXPECT_EQ(wait, "11 FileSystemUpdate:password files locked (/etc/shadow)");
    EXPECT_TRUE(end.tv_sec - start.tv_sec >= 14 && end.tv_sec - start.tv_sec <= 20) << end.tv_sec - start.tv_sec;
    ASSERT_TRUE(alarmed) << "the host's alarm never went off";
    EXPECT_TRUE(alarmedAt.tv_sec - start.tv_sec >= 1 && alarmedAt.tv_sec - start.tv_sec <= 4);
    EXPECT_GT(lookupsMeanwhile, 10);
    EXPECT_TRUE(lockIsFree());
}

// The live file's stream is read in large chunks; to whoever reads it (the C library's reentrant
// reader, which asks for the position at every entry and goes back on a short buffer) it is a
// regular stream, positions and repositioning included.
TEST_F(Transaction, TheLiveFileReadsAndSeeksAsARegularStream) {
    std::string text = readFile("/etc/passwd");
    for (int i = 0; i < 3000; ++i)  // about 200 KB: several chunks
        text += "filler" + std::to_string(i) + ":x:" + std::to_string(30000 + i) +
                ":100:" + std::string(i % 7 == 0 ? 300 : 10, 'g') + ":/nonexistent:/bin/false\n";
    writeFile("/etc/passwd", text);
    std::vector<std::size_t> starts;  // offset of every line
    for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) starts.push_back(at);

    FileSystemUpdate transaction("/etc/passwd", "/etc/tmppassd", false);
    transaction.prepareSystemFiles();
    FILE* live = transaction.m_file;
    // Entry by entry with a buffer too small for the long lines: the reader goes back and the
    // caller retries with more room.
    std::vector<char> buffer(64);
    std::size_t line = 0;
    for (;;) {
        ASSERT_EQ(ftello(live), static_cast<off_t>(line < starts.size() ? starts[line] : text.size()));
        struct passwd entry {};
        struct passwd* result = nullptr;
        const int status = fgetpwent_r(live, &entry, buffer.data(), buffer.size(), &result);
        if (status == ERANGE) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status == ENOENT) break;
        ASSERT_EQ(status, 0);
        EXPECT_EQ(text.compare(starts[line], std::strlen(entry.pw_name) + 1, std::string(entry.pw_name) + ":"), 0)
            << entry.pw_name;
        ++line;
    }
    EXPECT_EQ(line, starts.size());

    // Back and forth across chunks, and from the end: the line read there, or its rest.
    const auto next = [live] {
        char read[512];
        return std::string(std::fgets(read, sizeof read, live) ? read : "(nothing)");
    };
    for (const std::size_t index :
         {starts.size() / 2, std::size_t{3}, starts.size() - 1, std::size_t{0}, std::size_t{4}}) {
        ASSERT_EQ(fseeko(live, static_cast<off_t>(starts[index]), SEEK_SET), 0);
        EXPECT_EQ(next(), text.substr(starts[index], text.find('\n', starts[index]) + 1 - starts[index]));
    }
    ASSERT_EQ(fseeko(live, -10, SEEK_END), 0);
    EXPECT_EQ(ftello(live), static_cast<off_t>(text.size() - 10));
    EXPECT_EQ(next(), text.substr(text.size() - 10));
    rewind(live);
    EXPECT_EQ(next(), text.substr(0, starts[1]));
}

// Two files installed as the account layer does: passwd first, put back when shadow fails, both
// put back when a step that needs them installed fails.  A rename (as root) keeps the live file's
// owner and mode; the update command gets a 0600 temporary file whatever the mask.  A temporary
// name that leads to a file to keep is refused.
TEST_F(Transaction, TwoFilesAreInstalledOrLeftAsTheyWere) {
    definition.count = 6;
    ASSERT_EQ(run("mkdir -p /etc/data && cp -p /etc/passwd /etc/data/ && ln -sfn /etc/data/passwd /etc/linked && "
                  "echo precious >/etc/victim && echo ref:copy >/etc/passwd.orig")
                  .status,
              0);
    const Snapshot snapshot(
        {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/data/passwd", "/etc/victim", "/etc/passwd.orig"},
        {"/etc/tmppassd", "/etc/tmppassd.old", kTmp, std::string(kTmp) + ".old", "/etc/data/tmppassd",
         "/etc/data/tmppassd.old"});
    struct stat shadowBefore {};
    ASSERT_TRUE(stat(kShadow, &shadowBefore) == 0 && shadowBefore.st_gid == 42u);
    const std::string failsShadow = "sh -c 'case $1 in */tmpshadow) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string failsBoth = "sh -c 'case $1 in */tmpshadow|*.old) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string renameFailed = "rename error of:/etc/tmpshadow to /etc/shadow 2No such file or directory";
    const std::string scriptFailed = "Script update error 768 of:/etc/tmpshadow to /etc/shadow ";
    const std::string notPutBack = "FileSystemUpdate:/etc/passwd could not be put back (Script update error 768 of:";
    const std::string liveFile = "FileSystemUpdate:temporary file is the live file (";
    // The longest name, with bytes above ASCII: the limits themselves pass.
    const std::string name = std::string(25, 'l') + "j\xc3\xbcrgen";
    const struct {
        const char* plant;  // shell command run first
        const char* live;   // of the password file
        const char* tmp;
        bool vanishes;       // the shadow file's temporary file is gone before the install
        std::string script;  // empty: root
        std::string failure;
        bool stepFails = false;  // the step after the installation
    } cases[] = {
        {"true", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"true", "/etc/passwd", "/etc/tmppassd", false, "cp ", ""},
        {"ln -s /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"ln -s /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"ln /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"true", "/etc/linked", "/etc/data/tmppassd", false, "", ""},
        {"true", "/etc/passwd", "/etc/passwd", false, "", liveFile + "/etc/passwd)"},
        {"true", "/etc/passwd", "/etc/../etc/passwd", false, "", liveFile + "/etc/../etc/passwd)"},
        {"true", "/etc/passwd", "/etc/passwd.orig", false, "", liveFile + "/etc/passwd.orig)"},
        {"true", "/etc/linked", "/etc/data/passwd", false, "", liveFile + "/etc/data/passwd)"},
        {"true", "/etc/passwd", "/etc/tmppassd", true, "", renameFailed},
        {"true", "/etc/linked", "/etc/data/tmppassd", true, "", renameFailed},  // behind the link
        {"true", "/etc/passwd", "/etc/tmppassd", false, failsShadow, scriptFailed},
        {"true", "/etc/passwd", "/etc/tmppassd", false, failsBoth, notPutBack},
        {"true", "/etc/passwd", "/etc/tmppassd", false, "", "step failed", true},
        {"true", "/etc/passwd", "/etc/tmppassd", false, "cp ", "step failed", true},
    };
    const mode_t mask = umask(0);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.plant) + " / " + c.live + " / " + c.tmp + " / " + c.script + " / " + c.failure);
        for (const auto& [path, text] : snapshot.files) writeFile(path, text);
        definition.root = c.script.empty();
        definition.script = c.script;
        ASSERT_EQ(run(c.plant).status, 0);
        const auto body = [&] {
            FileSystemUpdate passwd(c.live, c.tmp, "/etc/passwd.orig", true);
            FileSystemUpdate shadow(kShadow, kTmp, false);
            passwd.prepareSystemFiles();
            shadow.prepareSystemFiles();
            struct stat tmp {};
            EXPECT_TRUE(stat(kTmp, &tmp) == 0 && (tmp.st_mode & 07777) == (c.script.empty() ? 0640u : 0600u));
            char line[32] = {};
            EXPECT_STREQ(std::fgets(line, sizeof line, passwd.m_origFile), "ref:copy\n");
            EXPECT_EQ(addEntryInPasswordFile(passwd, name, 10003), 10005u);
            addEntryInShadowFile(shadow, name, "$6$s$h", {true}, -1, -1, -1, true, false);
            if (c.vanishes) {
                ASSERT_EQ(unlink(kTmp), 0);
            }
            if (!c.stepFails) return finalyzeSystemFilesTogether(passwd, shadow);
            finalyzeSystemFilesTogether({&passwd, &shadow}, [] {
                usermanagement::detail::raise<UMSystemErrorException>(UMSystemError::FileTransaction, "step failed");
            });
        };
        // Afterwards: the new entries where both files went in, the new passwd where not put back.
        Snapshot expected = snapshot;
        const std::string target = c.live == std::string("/etc/linked") ? "/etc/data/passwd" : "/etc/passwd";
        if (c.failure.empty() || c.failure == notPutBack)
            expected.files[target] += name + ":x:10005:10003:UI User:/home/admin:/bin/maintenance\n";
        if (c.failure.empty()) {
            expected.files[kShadow] += name + ":$6$s$h:" + std::to_string(std::time(nullptr) / 86400) + "::::::\n";
            body();
        } else {
            expectFailure(body, kSystem, UMSystemError::FileTransaction, c.failure, true);
        }
        if (c.failure == notPutBack) {  // the only copy of the old file stays, out of the next one's way
            EXPECT_EQ(readFile("/etc/tmppassd.old.unrestored"), snapshot.files.at("/etc/passwd"));
            unlink("/etc/tmppassd.old.unrestored");
        }
        expected.expectUnchanged();
        struct stat shadowAfter {}, link{};
        EXPECT_TRUE(stat(kShadow, &shadowAfter) == 0 && shadowAfter.st_uid == shadowBefore.st_uid &&
                    shadowAfter.st_gid == shadowBefore.st_gid && shadowAfter.st_mode == shadowBefore.st_mode);
        EXPECT_TRUE(lstat("/etc/linked", &link) == 0 && S_ISLNK(link.st_mode)) << "the link was replaced";
    }
    umask(mask);
}

TEST_F(Reliability, FullDiskLeavesEverythingAsItWasWhereverTheWriteFails) {
    definition.count = 6;
    const std::string dir = "/etc/tvc-full", passwd = dir + "/passwd", shadow = dir + "/shadow", small = dir + "/small";
    ASSERT_EQ(run("mkdir " + dir + " && mount -t tmpfs -o size=64k tvc-full " + dir).status, 0);
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { run("umount -l " + dir + " && rmdir " + dir); });
    // Larger than a stdio buffer: the copy loop meets the full disk; "small" meets it at the flush.
    const auto filler = [](const std::string& line) {
        return run("for i in $(seq 0 199); do echo \"" + line + "\"; done").output;
    };
    writeFile(passwd, readFile("/etc/passwd") + filler("filler$i:x:$((30000 + i)):100::/nonexistent:/bin/false"));
    writeFile(shadow, readFile("/etc/shadow") + filler("filler$i:*:20454:0:99999:7:::"));
    writeFile(small, readFile("/etc/passwd"));
    ASSERT_NE(run("head -c 100000 /dev/zero 2>&1 >" + dir + "/filler").output.find("No space left"), std::string::npos);
    const Snapshot snapshot({passwd, shadow, small}, {passwd + ".tmp", shadow + ".tmp", small + ".tmp"});

    // The copy loop is shared: one row per file kind.
    LookUpdateShadow record;
    const struct {
        const std::string& live;
        std::string message;  // followed by the temporary path
        Body body;
    } cases[] = {
        {passwd, "addEntryInPasswordFile error in writing to ",
         [](FileSystemUpdate& t) { addEntryInPasswordFile(t, "nospace", 100); }},
        {shadow, "updateEntryInShadowFile error in writing to ",  // the wording of the single update
         [&](FileSystemUpdate& t) { updateAllUserEntryInShadowFile(t, false, 90, 1, 14, record); }},
        {small, "fflush or fsync error of:", [](FileSystemUpdate& t) { addEntryInPasswordFile(t, "nospace", 100); }},
        // A writer that ignores a failed write: what was lost must not be installed.
        {small, "fflush or fsync error of:",
         [](FileSystemUpdate& t) { std::fputs(std::string(8192, 'x').c_str(), t.m_tmpFile); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        // The reason of the failed system call comes with the error, beside the fixed message.
        EXPECT_EQ(expectFailure([&] { rewrite(c.live, c.live + ".tmp", c.body); }, typeid(UMSystemErrorException),
                                c.live == small ? UMSystemError::FileTransaction : UMSystemError::FileContents,
                                c.message + c.live + ".tmp"),
                  std::strerror(ENOSPC));
        snapshot.expectUnchanged();
    }
}

// files_fault_driver ARGS with the libfiu failure point `enable` ("enable name=POINT[,...]").
Result runWithFault(const std::string& enable, const std::string& args) {
#ifdef TVC_ASAN_RUNTIME
    // The sanitizer runtime must come before fiu's preload libraries, which fiu-run puts first;
    // fiu's preload keeps its parsed command line to the end, a leak to ASan.
    const std::string fiu = TVC_FIU_PRELOAD_DIR;
    return run("umask 022; FIU_ENABLE='" + enable + "' FIU_CTRL_FIFO= LD_PRELOAD='" TVC_ASAN_RUNTIME " " + fiu +
               "/fiu_run_preload.so " + fiu + "/fiu_posix_preload.so' ASAN_OPTIONS=detect_leaks=0 " + kDriver + " " +
               args);
#else
    return run("umask 022; " TVC_FIU_RUN " -x -f '' -c '" + enable + "' " + kDriver + " " + args);
#endif
}

TEST_F(Reliability, InjectedSystemCallFailuresLeaveEverythingAsItWas) {
    if (std::string(TVC_FIU_RUN).empty()) GTEST_SKIP() << "fiu-run (package fiu-utils) not installed";
    writeFile("/etc/victim", "precious\n");
    const Snapshot snapshot({"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/victim"});
    // A link to /etc/victim waits at the temporary path: where it stays, no file is created through it.
    const std::pair<const char*, const char*> cases[] = {  // the failure point, the start of the output
        {"posix/io/sync/fsync", "error 13 fflush or fsync error of:/etc/tmppassd\n"},
        {"posix/io/dir/rename", "error 13 rename error of:/etc/tmppassd to /etc/passwd "},
        {"posix/io/dir/unlink", "error 13 fopen /etc/tmppassd prepareSystemFiles\n"},
        // The live file cannot be read (EIO): the entry function that reads it says so.
        {"posix/io/rw/read,failinfo=5", "error 10 addEntryInPasswordFile error in reading /etc/passwd\n"},
    };
    for (const auto& [point, expected] : cases) {
        SCOPED_TRACE(point);
        ASSERT_EQ(symlink("/etc/victim", "/etc/tmppassd"), 0);
        const Result result = runWithFault(std::string("enable name=") + point, "add injected");
        EXPECT_EQ(result.status, 1) << result.output;
        EXPECT_EQ(result.output.rfind(expected, 0), 0u) << result.output;
        // The creation mask is never touched: other threads of a host create files meanwhile.
        EXPECT_NE(result.output.find("umask 022\n"), std::string::npos) << result.output;
        unlink("/etc/tmppassd");
        snapshot.expectUnchanged();
    }
}

// Reads that return less than asked for, as any read may: the rewrite keeps every line.
TEST_F(Reliability, ShortReadsLoseNothing) {
    if (std::string(TVC_FIU_RUN).empty()) GTEST_SKIP() << "fiu-run (package fiu-utils) not installed";
    std::string filler;
    for (int i = 0; i < 2000; ++i)  // several read chunks
        filler += "filler" + std::to_string(i) + ":x:" + std::to_string(30000 + i) + ":100::/nonexistent:/bin/false\n";
    addLines("/etc/passwd", filler);
    const Snapshot before({"/etc/passwd", "/etc/shadow"}, {});
    ASSERT_EQ(run(kDriver + " add whole").status, 0);
    const Snapshot expected({"/etc/passwd", "/etc/shadow"}, {});
    for (const auto& [path, text] : before.files) writeFile(path, text);

    const Result result = runWithFault("enable name=posix/io/rw/read/reduce", "add whole");
    EXPECT_EQ(result.output.rfind("ok\n", 0), 0u) << result.output;
    expected.expectUnchanged();
}

// A writer killed between its two installs leaves a stale shadow entry and temporary file: neither
// may trip the next operation, nor the stale password log in to the next account of that name.
TEST_F(Reliability, AWriterKilledBetweenItsInstallsLeavesNothingTheNextOneTripsOver) {
    // The next operation, and the password "guest" has afterwards.
    for (const auto& [next, password] :
         {std::pair{"add guest Fresh#2026", "Fresh#2026"}, {"rename viewer guest", "Viewer#2026"}}) {
        SCOPED_TRACE(next);
        restoreSampleDevice();
        FILE* writer = popen((kDriver + " --hold remove guest").c_str(), "re");
        ASSERT_NE(writer, nullptr);
        int pid = 0;
        ASSERT_EQ(std::fscanf(writer, "held %d", &pid), 1);
        kill(pid, SIGKILL);
        ASSERT_EQ(finish(writer).status, 128 + SIGKILL);
        EXPECT_TRUE(lockIsFree()) << "the kernel releases the lock with the process";
        ASSERT_TRUE(lineOf("/etc/passwd", "guest").empty() && !lineOf("/etc/shadow", "guest").empty() &&
                    exists("/etc/tmpshadow"))
            << "no stale shadow entry and temporary file to test with";

        const Result result = run(kDriver + " " + next);
        ASSERT_EQ(result.status, 0) << result.output;
        EXPECT_FALSE(exists("/etc/tmppassd") || exists("/etc/tmpshadow"));
        const std::string shadow = readFile("/etc/shadow"), hash = fields(lineOf("/etc/shadow", "guest"))[1];
        EXPECT_EQ(shadow.find("\nguest:"), shadow.rfind("\nguest:")) << "the stale entry stays beside the new one";
        EXPECT_STREQ(crypt(password, hash.c_str()), hash.c_str());
        EXPECT_STRNE(crypt("Guest#2026", hash.c_str()), hash.c_str()) << "the removed account's password logs in";
    }
}

TEST_F(Reliability, ConcurrentWritersAndShadowUtilsLoseNoEntry) {
    constexpr int kLibraryAdds = 25, kUseradds = 20;
    const auto loop = [](int count, const std::string& body) {
        return "for i in $(seq 0 " + std::to_string(count - 1) + "); do " + body + " || exit 1; done";
    };
    // Two library writers share one uid range; useradd uses others and userdel every second one.
    FILE* writers[] = {popen(loop(kLibraryAdds, kDriver + " add lib-a-$i >/dev/null").c_str(), "re"),
                       popen(loop(kLibraryAdds, kDriver + " add lib-b-$i >/dev/null").c_str(), "re"),
                       popen(loop(kUseradds,
                                  "useradd -M -N -g users -d /home/admin -s /bin/sh -u $((30000 + i)) ua$i && "
                                  "if [ $((i % 2)) -eq 0 ]; then userdel ua$i; fi")
                                 .c_str(),
                             "re")};
    for (FILE* writer : writers) {
        const Result result = finish(writer);
        EXPECT_EQ(result.status, 0) << result.output;
    }

    for (int i = 0; i < 2 * kLibraryAdds; ++i) {
        const std::string name = (i % 2 ? "lib-b-" : "lib-a-") + std::to_string(i / 2);
        EXPECT_TRUE(getpwnam(name.c_str()) && getspnam(name.c_str())) << name << " lost";
    }
    for (int i = 0; i < kUseradds; ++i)
        EXPECT_EQ(getpwnam(("ua" + std::to_string(i)).c_str()) != nullptr, i % 2 == 1) << "ua" << i;
    // Every sample account is still there, every uid is used once.
    EXPECT_EQ(lines("/etc/passwd").size(), 12u + 2 * kLibraryAdds + kUseradds / 2);
    EXPECT_EQ(lines("/etc/shadow").size(), lines("/etc/passwd").size());
    std::set<std::string> uids;
    for (const std::string& line : lines("/etc/passwd")) EXPECT_TRUE(uids.insert(fields(line)[2]).second) << line;
    const Result checks = run("/usr/sbin/pwck -r && /usr/sbin/grpck -r");
    EXPECT_EQ(checks.status, 0) << checks.output;
    EXPECT_FALSE(exists("/etc/tmppassd") || exists("/etc/tmpshadow"));
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
