// The test environment itself: the sandbox builds the device sample-device.txt describes, keeps
// every change inside and keeps its interface.
#include <gtest/gtest.h>

#include <crypt.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "sampledevice/SampleDevice.h"
#include "support/Sandbox.h"

using tvc::sample::sampleDevice;
using tvc::test::readFile;

namespace {

using SampleDevice = tvc::test::SandboxTest;

// "uid:gid mode" of a file, the mode in octal.
std::string ownerAndMode(const std::string& path) {
    struct stat st {};
    char text[64] = "missing";
    if (stat(path.c_str(), &st) == 0)
        std::snprintf(text, sizeof text, "%u:%u %o", st.st_uid, st.st_gid, st.st_mode & 07777);
    return text;
}

// The four account files in `dir` are as the description gives them, owned and protected as on a device.
void expectDescribedFilesIn(const std::string& dir) {
    std::string passwd, shadow, group, gshadow;
    for (const auto& a : sampleDevice().accounts) {
        passwd += a.name + ":x:" + std::to_string(a.uid) + ":" + std::to_string(sampleDevice().group(a.group).gid) +
                  ":" + a.gecos + ":" + a.home + ":" + a.shell + "\n";
        shadow += a.name + ":" + a.shadow + ":" + sampleDevice().aging + "\n";
    }
    for (const auto& g : sampleDevice().groups) {
        std::string members;
        for (const std::string& member : g.members) members += (members.empty() ? "" : ",") + member;
        group += g.name + ":x:" + std::to_string(g.gid) + ":" + members + "\n";
        gshadow += g.name + ":!::" + members + "\n";
    }
    for (const auto& [name, text] :
         {std::pair{"passwd", passwd}, {"shadow", shadow}, {"group", group}, {"gshadow", gshadow}}) {
        EXPECT_EQ(readFile(dir + "/" + name), text) << dir << "/" << name;
        EXPECT_EQ(ownerAndMode(dir + "/" + name),
                  std::string(name).find("shadow") != std::string::npos ? "0:42 640" : "0:0 644");
    }
}

// The fixture restores contents, owners and modes, whatever a test did to them.
TEST_F(SampleDevice, SandboxWritesTheDescribedDeviceAndTheFixturePutsItBack) {
    expectDescribedFilesIn(tvc::test::pristineDir());
    // The hashes are those of the test passwords; an account without one is locked.
    for (const auto& a : sampleDevice().accounts) {
        EXPECT_TRUE(a.password.empty() ? a.shadow == "*" || a.shadow == "!"
                                       : a.shadow == crypt(a.password.c_str(), a.shadow.c_str()))
            << a.name;
    }
    EXPECT_EQ(getpwnam("daemon"), nullptr) << "every Debian host has it; the sample device does not";

    tvc::test::writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    ASSERT_EQ(chown("/etc/shadow", 0, 0), 0);
    ASSERT_EQ(chmod("/etc/shadow", 0600), 0);
    tvc::test::restoreSampleDevice();
    expectDescribedFilesIn("/etc");
}

// "<exit status> <output>" of the sandbox script run with `args` (shell words), as nobody when
// asked; `meanwhile` may read the first of its output.
std::string runSandbox(const std::string& args, bool asNobody = false,
                       const std::function<void(std::FILE*)>& meanwhile = nullptr) {
    const std::string as = asNobody ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
    std::FILE* out = popen((as + tvc::test::sandboxScript() + " " + args + " 2>&1").c_str(), "r");
    if (meanwhile) meanwhile(out);
    const tvc::test::Result result = tvc::test::finish(out);
    return std::to_string(result.status) + " " + result.output;
}

// Sandboxes inside this one: whatever a command does to /etc, /home and /var/log stays inside,
// and a sandbox told to stop ends its command before it goes, since the command must not run on
// without the sandbox's scratch file system and pristine copies underneath it.
TEST_F(SampleDevice, NestedSandboxesKeepChangesInsideEndTheirCommandAndKeepTheirInterface) {
    pid_t command = 0, sandbox = 0;
    const std::string stopped = runSandbox("-- sh -c 'echo $$ $PPID; exec sleep 30'", false, [&](std::FILE* said) {
        // The command, the sandbox's child, names both.
        if (std::fscanf(said, "%d %d", &command, &sandbox) == 2 && sandbox > 0) kill(sandbox, SIGTERM);
    });
    const bool commandLeft = command > 0 && kill(command, 0) == 0;
    if (commandLeft) kill(command, SIGKILL);
    EXPECT_GT(command, 0) << "the nested sandbox never started its command";
    EXPECT_FALSE(commandLeft) << "the command outlived its sandbox";
    EXPECT_EQ(stopped.substr(0, stopped.find(' ')), std::to_string(128 + SIGTERM));

    EXPECT_EQ(runSandbox("-- sh -c 'echo intruder:x:0:0::/:/bin/sh >>/etc/passwd; : >/etc/shadow; rm /etc/group;"
                         " mkdir /home/intruder; echo x >/var/log/tvc-intruder; test \"$TVC_SANDBOX\" = 1 && exit 3'"),
              "3 ");
    EXPECT_EQ(runSandbox("-- true", true),
              "125 tvc-sandbox: cannot create the device sandbox: needs root (running as uid 65534)\n");
    EXPECT_EQ(runSandbox("--fallback sh -c 'echo \"${TVC_SANDBOX-unset} $TVC_SANDBOX_ERROR\"'", true),
              "0 unset needs root (running as uid 65534)\n");
    expectDescribedFilesIn("/etc");
    EXPECT_EQ(ownerAndMode("/home/intruder") + " " + ownerAndMode("/var/log/tvc-intruder"), "missing missing");
}

}  // namespace
