// What a failing, dying or contended transaction leaves behind.  After every failure: live
// files byte for byte as before, no temporary file, the password-file lock free.
//
// Failures of the system calls are injected into a separate process (files_fault_driver)
// with libfiu's fiu-run; a full disk is a real tmpfs; killed and concurrent writers are real
// processes.  All of it happens inside the device sandbox.
#include <gtest/gtest.h>
#include <pwd.h>
#include <shadow.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

const std::string kDriver = TVC_FILES_DRIVER;
const std::string kFiuRun = TVC_FIU_RUN;
const std::vector<std::string> kLive{"/etc/passwd", "/etc/shadow"};
const std::vector<std::string> kTemporaries{"/etc/tmppassd", "/etc/tmpshadow"};

using Reliability = FilesTest;

int exitStatus(const ProcessResult& result) {
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : 128 + WTERMSIG(result.status);
}

std::string currentMask() {
    const mode_t mask = umask(0);
    umask(mask);
    char text[8];
    std::snprintf(text, sizeof text, "%03o", static_cast<unsigned int>(mask));
    return text;
}

// The driver's one addition under fiu-run with failure point `point` enabled throughout.
ProcessResult addWithFailure(const std::string& point) {
#ifdef TVC_ASAN_RUNTIME
    // fiu-run preloads its libraries ahead of the sanitizer runtime, whose interceptors then
    // are not ready when the libraries initialise: the driver would crash while loading.  A
    // sanitized driver gets the environment fiu-run would give it, with the runtime first.
    // The fiu preload keeps its parsed command line for the life of the process, which the
    // leak checker would report.
    const std::string preload = TVC_FIU_PRELOAD_DIR;
    return runProcess({kDriver, "add", "injected"},
                      {"FIU_ENABLE=enable name=" + point, "FIU_CTRL_FIFO=",
                       "LD_PRELOAD=" TVC_ASAN_RUNTIME " " + preload + "/fiu_run_preload.so " + preload +
                           "/fiu_posix_preload.so",
                       "ASAN_OPTIONS=detect_leaks=0"});
#else
    return runProcess({kFiuRun, "-x", "-f", "", "-c", "enable name=" + point, kDriver, "add", "injected"});
#endif
}

TEST_F(Reliability, InjectedSystemCallFailuresLeaveEverythingAsItWas) {
    if (kFiuRun.empty()) GTEST_SKIP() << "fiu-run (package fiu-utils) not installed";
    const Snapshot snapshot = Snapshot::take(kLive, kTemporaries);
    const struct {
        const char* point;
        const char* expected;  // start of the output
    } cases[] = {
        // The temporary file cannot be created; the creation mask must be back afterwards.
        {"posix/stdio/oc/fopen", "error 13 fopen /etc/tmppassd prepareSystemFiles\numask "},
        {"posix/io/sync/fsync", "error 13 fflush or fsync error of:/etc/tmppassd\n"},
        {"posix/io/dir/rename", "error 13 rename error of:/etc/tmppassd to /etc/passwd "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.point);
        const ProcessResult result = addWithFailure(c.point);
        EXPECT_EQ(exitStatus(result), 1) << result.output;
        EXPECT_EQ(result.output.rfind(c.expected, 0), 0u) << result.output;
        EXPECT_NE(result.output.find("umask " + currentMask() + "\n"), std::string::npos) << result.output;
        snapshot.expectUnchanged();
    }
}

TEST_F(Reliability, FailingUpdateCommandLeavesEverythingAsItWas) {
    const Snapshot snapshot = Snapshot::take(kLive, kTemporaries);
    const ProcessResult result = runProcess({kDriver, "--no-root", "add", "scripted"});
    EXPECT_EQ(exitStatus(result), 1);
    EXPECT_EQ(result.output.rfind("error 13 Script update error 256 of:/etc/tmppassd to /etc/passwd ", 0), 0u)
        << result.output;
    snapshot.expectUnchanged();
}

// A tmpfs of 64 KiB holding the account files, filled to the last block.
class FullFileSystem {
public:
    static constexpr const char* kDir = "/etc/tvc-full";

    FullFileSystem() {
        mkdir(kDir, 0755);
        m_mounted = mount("tvc-full", kDir, "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=0755") == 0;
    }
    ~FullFileSystem() {
        if (m_mounted) umount2(kDir, MNT_DETACH);
        rmdir(kDir);
    }
    FullFileSystem(const FullFileSystem&) = delete;
    FullFileSystem& operator=(const FullFileSystem&) = delete;

    bool mounted() const { return m_mounted; }
    std::string path(const char* name) const { return std::string(kDir) + "/" + name; }

    // Writes until the file system refuses with ENOSPC; false when it never does.
    bool fill() {
        const std::string filler = path("filler");
        FILE* file = std::fopen(filler.c_str(), "w");
        if (file == nullptr) return false;
        std::setvbuf(file, nullptr, _IONBF, 0);
        const std::string block(512, 'f');
        bool full = false;
        for (int i = 0; i < 1000 && !full; ++i) full = std::fwrite(block.data(), 1, block.size(), file) != block.size();
        full = full && errno == ENOSPC;
        std::fclose(file);
        return full;
    }
    void makeRoom() { unlink(path("filler").c_str()); }

private:
    bool m_mounted = false;
};

TEST_F(Reliability, FullFileSystemLeavesEverythingAsItWas) {
    FullFileSystem disk;
    ASSERT_TRUE(disk.mounted()) << std::strerror(errno);
    definition.passwd = disk.path("passwd");
    definition.passwdTmp = disk.path("tmppassd");
    definition.shadow = disk.path("shadow");
    definition.shadowTmp = disk.path("tmpshadow");
    definition.base = 20000;
    definition.count = 10;
    // Larger than one stdio buffer, so that the copy loop itself meets the full disk.
    std::string passwd = readFile("/etc/passwd");
    for (int i = 0; i < 200; ++i)
        passwd += "filler" + std::to_string(i) + ":x:" + std::to_string(30000 + i) + ":100::/nonexistent:/bin/false\n";
    writeFile(definition.passwd, passwd);
    writeFile(definition.shadow, readFile("/etc/shadow"));
    ASSERT_TRUE(disk.fill());

    const Snapshot snapshot = Snapshot::take({definition.passwd, definition.shadow},
                                             {definition.passwdTmp, definition.shadowTmp});
    try {
        FileSystemUpdate passwdFile(definition.passwd, definition.passwdTmp, true);
        FileSystemUpdate shadowFile(definition.shadow, definition.shadowTmp, false);
        passwdFile.prepareSystemFiles();
        shadowFile.prepareSystemFiles();
        addEntryInPasswordFile(passwdFile, "nospace", 100);
        addEntryInShadowFile(shadowFile, "nospace", "x", PasswordType{true}, -1, -1, -1, true, false);
        passwdFile.finalyzeSystemFiles();
        shadowFile.finalyzeSystemFiles();
        ADD_FAILURE() << "a transaction succeeded on a full file system";
    } catch (UMSystemErrorException& e) {
        EXPECT_EQ(std::string(e.what()), "addEntryInPasswordFile error in writing to " + definition.passwdTmp);
    }
    snapshot.expectUnchanged();

    // With room again, the same transaction goes through.
    disk.makeRoom();
    rewrite(definition.passwd, definition.passwdTmp, true,
            [](FileSystemUpdate& t) { addEntryInPasswordFile(t, "nospace", 100); });
    EXPECT_EQ(lines(definition.passwd).back(), "nospace:x:20000:100:UI User:/home/admin:/bin/sh");
}

TEST_F(Reliability, KilledWriterLeavesTheLiveFilesAndTheNextTransactionCleansUp) {
    const Snapshot snapshot = Snapshot::take(kLive, {});
    RunningProcess writer = startProcess({kDriver, "hold", "killed"});
    ASSERT_GT(writer.pid, 0);
    // The driver says "filled" once both temporary files hold the new entries.
    std::string said;
    char c = 0;
    while (said.find("filled\n") == std::string::npos && read(writer.out, &c, 1) == 1) said += c;
    ASSERT_EQ(said, "filled\n");
    for (const std::string& tmp : kTemporaries) ASSERT_TRUE(exists(tmp)) << tmp;
    ASSERT_NE(readFile("/etc/tmpshadow").find("killed:"), std::string::npos);

    kill(writer.pid, SIGKILL);
    const ProcessResult killed = finish(writer);
    ASSERT_TRUE(WIFSIGNALED(killed.status));
    // The kernel released the lock with the process; the stale temporary files are still there.
    snapshot.expectUnchanged();
    for (const std::string& tmp : kTemporaries) EXPECT_TRUE(exists(tmp)) << tmp;

    const ProcessResult next = runProcess({kDriver, "add", "survivor"});
    EXPECT_EQ(exitStatus(next), 0) << next.output;
    EXPECT_EQ(lineOf("/etc/shadow", "killed"), "");
    EXPECT_NE(lineOf("/etc/shadow", "survivor"), "");
    EXPECT_EQ(readFile("/etc/passwd"), snapshot.files.at("/etc/passwd") + lineOf("/etc/passwd", "survivor") + "\n");
    for (const std::string& tmp : kTemporaries) EXPECT_FALSE(exists(tmp)) << tmp;
}

TEST_F(Reliability, ConcurrentWritersAndShadowUtilsLoseNoEntry) {
    constexpr int kLibraryAdds = 25;
    constexpr int kUseradds = 20;
    // Two library writers share one uid range; useradd takes ids far from it.
    RunningProcess first = startProcess({kDriver, "addloop", "lib-a-", std::to_string(kLibraryAdds)});
    RunningProcess second = startProcess({kDriver, "addloop", "lib-b-", std::to_string(kLibraryAdds)});
    const std::string loop =
        "i=0; while [ $i -lt " + std::to_string(kUseradds) +
        " ]; do"
        "  useradd -M -N -g users -d /home/admin -s /bin/sh -u $((30000 + i)) ua$i || exit 1;"
        "  if [ $((i % 2)) -eq 0 ]; then userdel ua$i || exit 1; fi;"
        "  i=$((i + 1));"
        " done";
    RunningProcess shadowUtils = startProcess({"/bin/sh", "-c", loop});
    const ProcessResult a = finish(first), b = finish(second), s = finish(shadowUtils);
    ASSERT_EQ(exitStatus(a), 0) << a.output;
    ASSERT_EQ(exitStatus(b), 0) << b.output;
    ASSERT_EQ(exitStatus(s), 0) << s.output;

    for (const char* prefix : {"lib-a-", "lib-b-"}) {
        for (int i = 0; i < kLibraryAdds; ++i) {
            const std::string name = prefix + std::to_string(i);
            EXPECT_NE(getpwnam(name.c_str()), nullptr) << name << " lost from passwd";
            EXPECT_NE(getspnam(name.c_str()), nullptr) << name << " lost from shadow";
        }
    }
    for (int i = 0; i < kUseradds; ++i) {
        const std::string name = "ua" + std::to_string(i);
        EXPECT_EQ(getpwnam(name.c_str()) != nullptr, i % 2 == 1) << name;
    }
    // Every sample account is still there, every uid is used once.
    EXPECT_EQ(lines("/etc/passwd").size(), 12u + 2 * kLibraryAdds + kUseradds / 2);
    EXPECT_EQ(lines("/etc/shadow").size(), lines("/etc/passwd").size());
    std::set<std::string> uids;
    for (const std::string& line : lines("/etc/passwd")) EXPECT_TRUE(uids.insert(fields(line)[2]).second) << line;

    const ProcessResult pwck = runProcess({"/usr/sbin/pwck", "-r"});
    EXPECT_EQ(exitStatus(pwck), 0) << pwck.output;
    const ProcessResult grpck = runProcess({"/usr/sbin/grpck", "-r"});
    EXPECT_EQ(exitStatus(grpck), 0) << grpck.output;
    for (const std::string& tmp : kTemporaries) EXPECT_FALSE(exists(tmp)) << tmp;
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
