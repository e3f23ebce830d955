// Checks of the test environment itself: the sample device the sandbox builds, and the
// fixture that puts it back before every test.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/Sandbox.h"

using tvc::test::pristineDir;
using tvc::test::readFile;

namespace {

using SampleDevice = tvc::test::SandboxTest;

void expectOwnerAndMode(const char* path, uid_t uid, gid_t gid, mode_t mode) {
    struct stat st {};
    ASSERT_EQ(stat(path, &st), 0) << path;
    EXPECT_EQ(st.st_uid, uid) << path;
    EXPECT_EQ(st.st_gid, gid) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
}

TEST_F(SampleDevice, NameServiceReadsOnlyTheSampleFilesInFileOrder) {
    const passwd* admin = getpwnam("admin");
    ASSERT_NE(admin, nullptr);
    EXPECT_EQ(admin->pw_gid, 10000u);
    ASSERT_NE(getgrnam("viewers"), nullptr);
    EXPECT_EQ(getgrnam("viewers")->gr_gid, 10002u);
    const spwd* shadow = getspnam("admin");
    ASSERT_NE(shadow, nullptr);
    EXPECT_EQ(std::string(shadow->sp_pwdp).rfind("$6$", 0), 0u);
    EXPECT_EQ(getpwnam("daemon"), nullptr) << "every Debian host has it; the sample device does not";

    gid_t groups[16];
    int count = 16;
    ASSERT_NE(getgrouplist("plainuser", 100, groups, &count), -1);
    EXPECT_EQ(std::vector<gid_t>(groups, groups + count), (std::vector<gid_t>{100, 4101, 10002}));
}

TEST_F(SampleDevice, AccountFilesHaveDeviceOwnersAndModesAndCanBeLocked) {
    expectOwnerAndMode("/etc/passwd", 0, 0, 0644);
    expectOwnerAndMode("/etc/group", 0, 0, 0644);
    expectOwnerAndMode("/etc/shadow", 0, 42, 0640);
    expectOwnerAndMode("/etc/gshadow", 0, 42, 0640);
    EXPECT_EQ(lckpwdf(), 0);
    EXPECT_EQ(ulckpwdf(), 0);
}

// The library's way of replacing an account file: temporary file, owner and mode, rename.
TEST_F(SampleDevice, AccountFileCanBeReplacedByRename) {
    const std::string text = readFile("/etc/passwd") + "probe:x:12345:100::/nonexistent:/usr/sbin/nologin\n";
    const char* temporary = "/etc/passwd.sandbox-test";
    int fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(fchown(fd, 0, 42), 0);
    EXPECT_EQ(fchmod(fd, 0644), 0);
    close(fd);
    ASSERT_EQ(std::rename(temporary, "/etc/passwd"), 0);
    ASSERT_NE(getpwnam("probe"), nullptr);
    EXPECT_EQ(getpwnam("probe")->pw_uid, 12345u);
    expectOwnerAndMode("/etc/passwd", 0, 42, 0644);
}

// These two run in this order (gtest keeps definition order unless shuffling): the second
// sees the first's damage undone by the fixture alone, owner and mode included.
TEST_F(SampleDevice, DamageTheDevice) {
    tvc::test::writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/bash\n");
    ASSERT_EQ(chown("/etc/shadow", 0, 0), 0);
    ASSERT_EQ(chmod("/etc/shadow", 0600), 0);
    EXPECT_EQ(getpwnam("admin"), nullptr);
}

TEST_F(SampleDevice, FixtureUndidTheDamage) {
    EXPECT_EQ(readFile("/etc/passwd"), readFile(pristineDir() + "/passwd"));
    EXPECT_NE(getpwnam("admin"), nullptr);
    expectOwnerAndMode("/etc/shadow", 0, 42, 0640);
    EXPECT_NE(getspnam("admin"), nullptr);
}

}  // namespace

namespace {

// A sandbox that is told to stop must not leave its command running without the sandbox's
// scratch file system (and the pristine copies) underneath it.
TEST_F(SampleDevice, StoppedSandboxEndsItsCommandBeforeLeaving) {
    char pidFile[] = "/tmp/tvc-sandbox-test.XXXXXX";
    int fd = mkstemp(pidFile);
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string script = std::string("echo $$ >") + pidFile + "; exec sleep 30";

    pid_t sandbox = fork();
    ASSERT_GE(sandbox, 0);
    if (sandbox == 0) {
        execl(tvc::test::sandboxScript(), tvc::test::sandboxScript(), "--", "sh", "-c", script.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_t command = 0;
    for (int i = 0; i < 500 && command <= 0; ++i) {
        usleep(10000);
        command = std::atoi(readFile(pidFile).c_str());
    }
    std::remove(pidFile);
    ASSERT_GT(command, 0) << "the nested sandbox never started its command";

    ASSERT_EQ(kill(sandbox, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(sandbox, &status, 0), sandbox);
    const bool commandLeft = kill(command, 0) == 0;
    if (commandLeft) kill(command, SIGKILL);
    EXPECT_FALSE(commandLeft) << "the command outlived its sandbox";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGTERM) << status;
}

}  // namespace
