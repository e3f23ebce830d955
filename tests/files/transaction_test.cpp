// The transaction itself and what a failing, dying or contended one leaves behind: the lock,
// the temporary file's life, owner and mode of the installed file, the two ways of installing
// it and the first of two installs undone.  System-call failures are injected into
// files_fault_driver with libfiu's fiu-run; the full disk is a real tmpfs; killed and concurrent
// writers are real processes.
#include <crypt.h>
#include <pwd.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <tuple>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

const std::string kDriver = TVC_FILES_DRIVER;
constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";
const std::type_info& kSystem = typeid(UMSystemErrorException);

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

bool isLink(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

using Transaction = FilesTest;
using Reliability = FilesTest;

TEST_F(Transaction, LockIsTakenOnceAndStaleTemporaryFilesGo) {
    writeFile(kTmp, "left over by a crash\n");
    {
        FileSystemUpdate holder(kShadow, kTmp, true);
        expectFailure([] { FileSystemUpdate second("/etc/passwd", "/etc/tmppassd", true); }, kSystem,
                      UMSystemError::FilesLocked, "FileSystemUpdate:password files locked (/etc/passwd)");
        // A lock-free transaction must not release the holder's lock.
        { FileSystemUpdate follower("/etc/passwd", "/etc/tmppassd", false); }
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_FALSE(exists(kTmp)) << "an unprepared transaction removes a stale temporary file";
    EXPECT_TRUE(lockIsFree());
}

// A two-file transaction as the account layer runs it.  As root a rename installs each file,
// which gets the live file's owner and mode (root:shadow 0640 for shadow); otherwise the update
// command installs it from a temporary file that is 0600 whatever the creation mask.  The
// password file goes first and is put back when the shadow file's install fails.  The
// temporary name is never trusted: what a crash or an attacker left there goes (/etc/victim
// stands for any file a link could aim at), and a name that leads to the live file or the
// reference copy is refused.  The failing commands here fail for the shadow file and, in the
// last row, for the kept password file too.
TEST_F(Transaction, TwoFilesAreInstalledOrLeftAsTheyWere) {
    definition.count = 6;
    ASSERT_EQ(run("mkdir -p /etc/data && cp -p /etc/passwd /etc/data/ && ln -sfn /etc/data/passwd /etc/linked").status,
              0);
    writeFile("/etc/victim", "precious\n");
    writeFile("/etc/passwd.orig", "ref:copy\n");
    const Snapshot snapshot(
        {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/data/passwd", "/etc/victim", "/etc/passwd.orig"},
        {"/etc/tmppassd", "/etc/tmppassd.old", kTmp, "/etc/data/tmppassd", "/etc/data/tmppassd.old"});
    const struct stat shadowBefore = statOf(kShadow);
    ASSERT_EQ(shadowBefore.st_gid, 42u);
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
        {"ln /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
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
            EXPECT_EQ(statOf(kTmp).st_mode & 07777, c.script.empty() ? 0640u : 0600u);
            char line[32] = {};
            EXPECT_STREQ(std::fgets(line, sizeof line, passwd.m_origFile), "ref:copy\n");
            EXPECT_EQ(addEntryInPasswordFile(passwd, name, 10003), 10005u);
            addEntryInShadowFile(shadow, name, "$6$s$h", {true}, -1, -1, -1, true, false);
            if (c.vanishes) {
                ASSERT_EQ(unlink(kTmp), 0);
            }
            finalyzeSystemFilesTogether(passwd, shadow);
        };
        // What the files hold afterwards: the new entries where both files were installed, the
        // new password file where it could not be put back.
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
        const struct stat shadowAfter = statOf(kShadow);
        EXPECT_EQ(std::tie(shadowAfter.st_uid, shadowAfter.st_gid, shadowAfter.st_mode),
                  std::tie(shadowBefore.st_uid, shadowBefore.st_gid, shadowBefore.st_mode));
        EXPECT_TRUE(isLink("/etc/linked")) << "the link was replaced";
    }
    umask(mask);
}

TEST_F(Reliability, FullDiskLeavesEverythingAsItWasWhereverTheWriteFails) {
    definition.count = 6;
    const std::string dir = "/etc/tvc-full", passwd = dir + "/passwd", shadow = dir + "/shadow", small = dir + "/small";
    ASSERT_EQ(run("mkdir " + dir + " && mount -t tmpfs -o size=64k tvc-full " + dir).status, 0);
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { run("umount -l " + dir + " && rmdir " + dir); });
    // Larger than a stdio buffer, so that the copy loop meets the full disk; "small" meets it
    // at the flush.
    std::string passwdText = readFile("/etc/passwd"), shadowText = readFile("/etc/shadow");
    for (int i = 0; i < 200; ++i) {
        passwdText +=
            "filler" + std::to_string(i) + ":x:" + std::to_string(30000 + i) + ":100::/nonexistent:/bin/false\n";
        shadowText += "filler" + std::to_string(i) + ":*:20454:0:99999:7:::\n";
    }
    writeFile(passwd, passwdText);
    writeFile(shadow, shadowText);
    writeFile(small, readFile("/etc/passwd"));
    ASSERT_NE(run("head -c 100000 /dev/zero 2>&1 >" + dir + "/filler").output.find("No space left"), std::string::npos);
    const Snapshot snapshot({passwd, shadow, small}, {passwd + ".tmp", shadow + ".tmp", small + ".tmp"});

    // The copy loop is shared: one row per message wording ("to", "in") and per file kind, and
    // the shadow update's wording, which the policy update shares.
    const bool no = false;
    LookUpdateShadow record;
    const struct {
        const std::string& live;
        std::string message;  // followed by the temporary path
        Body body;
    } cases[] = {
        {passwd, "addEntryInPasswordFile error in writing to ",
         [](FileSystemUpdate& t) { addEntryInPasswordFile(t, "nospace", 100); }},
        {passwd, "removeEntryInPasswordFile error in writing in ",
         [](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 30000); }},
        {shadow, "updateEntryInShadowFile error in writing to ",
         [&](FileSystemUpdate& t) {
             updateEntryInShadowFile(t, "filler0", nullptr, nullptr, {}, &no, nullptr, record);
         }},
        {shadow, "updateEntryInShadowFile error in writing to ",
         [&](FileSystemUpdate& t) { updateAllUserEntryInShadowFile(t, false, 90, 1, 14, record); }},
        {shadow, "removeEntryInShadowFile error in writing in ",
         [](FileSystemUpdate& t) { removeEntryInShadowFile(t, "filler0"); }},
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

    // With room again, the same transaction goes through.
    unlink((dir + "/filler").c_str());
    rewrite(passwd, passwd + ".tmp", cases[0].body);
    EXPECT_EQ(lines(passwd).back(), "nospace:x:10005:100:UI User:/home/admin:/bin/sh");
}

TEST_F(Reliability, InjectedSystemCallFailuresLeaveEverythingAsItWas) {
    if (std::string(TVC_FIU_RUN).empty()) GTEST_SKIP() << "fiu-run (package fiu-utils) not installed";
    writeFile("/etc/victim", "precious\n");
    const Snapshot snapshot({"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/victim"});
    const struct {
        const char* point;
        const char* expected;  // start of the output
        bool planted;          // a link to /etc/victim waits at the temporary path
    } cases[] = {
        {"posix/io/oc/open", "error 13 fopen /etc/tmppassd prepareSystemFiles\n", false},
        {"posix/io/sync/fsync", "error 13 fflush or fsync error of:/etc/tmppassd\n", false},
        {"posix/io/dir/rename", "error 13 rename error of:/etc/tmppassd to /etc/passwd ", false},
        // The planted link cannot be removed: the exclusive creation refuses to go through it.
        {"posix/io/dir/unlink", "error 13 fopen /etc/tmppassd prepareSystemFiles\n", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.point);
        if (c.planted) {
            ASSERT_EQ(symlink("/etc/victim", "/etc/tmppassd"), 0);
        }
        const std::string enable = std::string("enable name=") + c.point;
#ifdef TVC_ASAN_RUNTIME
        // fiu-run would preload its libraries ahead of the sanitizer runtime, which must come
        // first; fiu's preload keeps its parsed command line to the end, a leak to ASan.
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
        if (c.planted) unlink("/etc/tmppassd");
        snapshot.expectUnchanged();
    }
}

// A writer killed between its two installs leaves the shadow entry of a removed account and its
// shadow temporary file.  Neither may trip the next operation, and the stale entry's password
// must never log in to the next account of that name, created or renamed to it.
TEST_F(Reliability, AWriterKilledBetweenItsInstallsLeavesNothingTheNextOneTripsOver) {
    const struct {
        std::string next;
        const char* password;  // the one "guest" has afterwards
    } cases[] = {{"add guest Fresh#2026", "Fresh#2026"}, {"rename viewer guest", "Viewer#2026"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.next);
        restoreSampleDevice();
        FILE* writer = popen((kDriver + " --hold remove guest").c_str(), "re");
        ASSERT_NE(writer, nullptr);
        int pid = 0;
        ASSERT_EQ(std::fscanf(writer, "held %d", &pid), 1);
        kill(pid, SIGKILL);
        ASSERT_EQ(finish(writer).status, 128 + SIGKILL);
        EXPECT_TRUE(lockIsFree()) << "the kernel releases the lock with the process";
        ASSERT_EQ(lineOf("/etc/passwd", "guest"), "");
        ASSERT_NE(lineOf("/etc/shadow", "guest"), "") << "no stale shadow entry to test with";
        ASSERT_TRUE(exists("/etc/tmpshadow"));

        const Result next = run(kDriver + " " + c.next);
        ASSERT_EQ(next.status, 0) << next.output;
        EXPECT_FALSE(exists("/etc/tmppassd") || exists("/etc/tmpshadow"));
        const std::string shadow = readFile("/etc/shadow"), hash = fields(lineOf("/etc/shadow", "guest"))[1];
        EXPECT_EQ(shadow.find("\nguest:"), shadow.rfind("\nguest:")) << "the stale entry stays beside the new one";
        EXPECT_STREQ(crypt(c.password, hash.c_str()), hash.c_str());
        EXPECT_STRNE(crypt("Guest#2026", hash.c_str()), hash.c_str()) << "the removed account's password logs in";
    }
}

TEST_F(Reliability, ConcurrentWritersAndShadowUtilsLoseNoEntry) {
    constexpr int kLibraryAdds = 25, kUseradds = 20;
    // Shell loops over i = 0 .. count - 1 that stop at the first failing command.
    const auto loop = [](int count, const std::string& body) {
        return "for i in $(seq 0 " + std::to_string(count - 1) + "); do " + body + " || exit 1; done";
    };
    // Two library writers share one uid range; useradd takes ids far from it and deletes every
    // second account again.
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
    ASSERT_FALSE(HasFailure());

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
    for (const char* check : {"/usr/sbin/pwck", "/usr/sbin/grpck"}) {
        const Result result = run(std::string(check) + " -r");
        EXPECT_EQ(result.status, 0) << check << ": " << result.output;
    }
    EXPECT_FALSE(exists("/etc/tmppassd") || exists("/etc/tmpshadow"));
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
