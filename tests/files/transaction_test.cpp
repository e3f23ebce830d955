// The transaction and what a failing, dying or contended one leaves behind.  System-call
// failures are injected into files_fault_driver with libfiu's fiu-run; the full disk is a real
// tmpfs; killed and concurrent writers are real processes.
#include <crypt.h>
#include <pwd.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

const std::string kDriver = TVC_FILES_DRIVER;
constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";
const std::type_info& kSystem = typeid(UMSystemErrorException);

using Transaction = FilesTest;
using Reliability = FilesTest;

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

// Two files installed as the account layer does: passwd first, put back when shadow fails.  A
// rename (as root) keeps the live file's owner and mode; the update command gets a temporary file
// that is 0600 whatever the mask.  A temporary name that leads to a file to keep is refused.
TEST_F(Transaction, TwoFilesAreInstalledOrLeftAsTheyWere) {
    definition.count = 6;
    ASSERT_EQ(run("mkdir -p /etc/data && cp -p /etc/passwd /etc/data/ && ln -sfn /etc/data/passwd /etc/linked && "
                  "echo precious >/etc/victim && echo ref:copy >/etc/passwd.orig")
                  .status,
              0);
    const Snapshot snapshot(
        {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/data/passwd", "/etc/victim", "/etc/passwd.orig"},
        {"/etc/tmppassd", "/etc/tmppassd.old", kTmp, "/etc/data/tmppassd", "/etc/data/tmppassd.old"});
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
            finalyzeSystemFilesTogether(passwd, shadow);
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
            expectFailure(body, kSystem, UMSystemError::FileTransaction, c.failure, Match::Start);
        }
        expected.expectUnchanged();
        struct stat shadowAfter {};
        struct stat link {};
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

TEST_F(Reliability, InjectedSystemCallFailuresLeaveEverythingAsItWas) {
    if (std::string(TVC_FIU_RUN).empty()) GTEST_SKIP() << "fiu-run (package fiu-utils) not installed";
    writeFile("/etc/victim", "precious\n");
    const Snapshot snapshot({"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/victim"});
    // A link to /etc/victim waits at the temporary path: where it stays, no file is created through it.
    const struct {
        const char* point;
        const char* expected;  // start of the output
    } cases[] = {
        {"posix/io/sync/fsync", "error 13 fflush or fsync error of:/etc/tmppassd\n"},
        {"posix/io/dir/rename", "error 13 rename error of:/etc/tmppassd to /etc/passwd "},
        {"posix/io/dir/unlink", "error 13 fopen /etc/tmppassd prepareSystemFiles\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.point);
        ASSERT_EQ(symlink("/etc/victim", "/etc/tmppassd"), 0);
        const std::string enable = std::string("enable name=") + c.point;
#ifdef TVC_ASAN_RUNTIME
        // The sanitizer runtime must come before fiu's preload libraries, which fiu-run puts first;
        // fiu's preload keeps its parsed command line to the end, a leak to ASan.
        const std::string fiu = TVC_FIU_PRELOAD_DIR;
        const Result result =
            run("umask 022; FIU_ENABLE='" + enable + "' FIU_CTRL_FIFO= LD_PRELOAD='" TVC_ASAN_RUNTIME " " + fiu +
                "/fiu_run_preload.so " + fiu + "/fiu_posix_preload.so' ASAN_OPTIONS=detect_leaks=0 " + kDriver +
                " add injected");
#else
        const Result result =
            run("umask 022; " TVC_FIU_RUN " -x -f '' -c '" + enable + "' " + kDriver + " add injected");
#endif
        EXPECT_EQ(result.status, 1) << result.output;
        EXPECT_EQ(result.output.rfind(c.expected, 0), 0u) << result.output;
        // The creation mask is never touched: other threads of a host create files meanwhile.
        EXPECT_NE(result.output.find("umask 022\n"), std::string::npos) << result.output;
        unlink("/etc/tmppassd");
        snapshot.expectUnchanged();
    }
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
