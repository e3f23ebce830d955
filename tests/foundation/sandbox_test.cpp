// Checks of the test environment itself: the sandbox builds the sample device its description
// (tools/sampledevice/sample-device.txt) gives, never lets a change reach the files outside,
// keeps its command-line interface, and the fixture puts the device back.  README's table of
// the sample accounts is held to the same description.
#include <gtest/gtest.h>

#include <crypt.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sampledevice/SampleDevice.h"
#include "support/Sandbox.h"

using tvc::sample::sampleDevice;
using tvc::test::pristineDir;
using tvc::test::readFile;

namespace {

using SampleDevice = tvc::test::SandboxTest;

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
    return text;
}

// The four account files as the description gives them.
std::vector<std::pair<std::string, std::string>> describedFiles() {
    std::string passwd, shadow, group, gshadow;
    for (const auto& a : sampleDevice().accounts) {
        passwd += a.name + ":x:" + std::to_string(a.uid) + ":" + std::to_string(sampleDevice().group(a.group).gid) +
                  ":" + a.gecos + ":" + a.home + ":" + a.shell + "\n";
        shadow += a.name + ":" + a.shadow + ":" + sampleDevice().aging + "\n";
    }
    for (const auto& g : sampleDevice().groups) {
        group += g.name + ":x:" + std::to_string(g.gid) + ":" + joined(g.members) + "\n";
        gshadow += g.name + ":!::" + joined(g.members) + "\n";
    }
    return {{"passwd", passwd}, {"shadow", shadow}, {"group", group}, {"gshadow", gshadow}};
}

// "uid:gid mode" of a file, the mode in octal.
std::string ownerAndMode(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return "missing";
    std::ostringstream text;
    text << st.st_uid << ":" << st.st_gid << " " << std::oct << (st.st_mode & 07777);
    return text.str();
}

TEST_F(SampleDevice, SandboxWritesTheDescribedDeviceAndNothingElseAnswers) {
    for (const auto& [name, text] : describedFiles()) {
        EXPECT_EQ(readFile(pristineDir() + "/" + name), text) << name;
        EXPECT_EQ(ownerAndMode("/etc/" + name), name.find("shadow") != std::string::npos ? "0:42 640" : "0:0 644");
    }
    std::set<std::string> homes;
    for (const auto& a : sampleDevice().accounts) {
        const passwd* entry = getpwnam(a.name.c_str());
        ASSERT_NE(entry, nullptr) << a.name;
        EXPECT_EQ(entry->pw_uid, a.uid);
        const spwd* shadow = getspnam(a.name.c_str());
        ASSERT_NE(shadow, nullptr) << a.name;
        EXPECT_EQ(shadow->sp_pwdp, a.shadow);
        // A home under /home belongs to the first account naming it.
        const unsigned int gid = sampleDevice().group(a.group).gid;
        if (a.home.rfind("/home/", 0) == 0 && homes.insert(a.home).second) {
            EXPECT_EQ(ownerAndMode(a.home), std::to_string(a.uid) + ":" + std::to_string(gid) + " 750") << a.home;
        }

        // getgrouplist reports the primary group, then the groups naming the account in file order.
        std::vector<gid_t> expected{gid};
        for (const auto& g : sampleDevice().groups)
            for (const std::string& member : g.members)
                if (member == a.name && g.gid != gid) expected.push_back(g.gid);
        gid_t groups[64];
        int count = 64;
        ASSERT_NE(getgrouplist(a.name.c_str(), gid, groups, &count), -1);
        EXPECT_EQ(std::vector<gid_t>(groups, groups + count), expected) << a.name;
    }
    for (const auto& g : sampleDevice().groups) {
        const group* entry = getgrnam(g.name.c_str());
        ASSERT_NE(entry, nullptr) << g.name;
        EXPECT_EQ(entry->gr_gid, g.gid);
    }
    EXPECT_EQ(getpwnam("daemon"), nullptr) << "every Debian host has it; the sample device does not";
}

// The description's hashes are those of its test passwords; accounts without one are locked.
TEST(SampleDeviceDescription, HashesAreThoseOfTheTestPasswords) {
    for (const auto& a : sampleDevice().accounts) {
        if (a.password.empty()) {
            EXPECT_TRUE(a.shadow == "*" || a.shadow == "!") << a.name;
        } else {
            EXPECT_STREQ(crypt(a.password.c_str(), a.shadow.c_str()), a.shadow.c_str()) << a.name;
        }
    }
}

// The managed accounts are members of exactly the role and right groups their profile grants,
// so that rights checks through the catalogue and the group file agree; a profile group's id is
// its gid minus 10000, and every role a profile names is described.
TEST(SampleDeviceDescription, ProfileAccountsHoldExactlyTheGroupsTheProfileGrants) {
    int managed = 0;
    for (const auto& profile : sampleDevice().profiles) {
        if (profile.id < 0) continue;  // root and www-data: system profiles without roles
        EXPECT_EQ(profile.id + 10000u, sampleDevice().group(profile.name).gid) << profile.name;
        std::set<std::string> granted;
        for (const std::string& name : profile.roles) {
            int described = 0;
            for (const auto& role : sampleDevice().roles) {
                if (role.name != name) continue;
                ++described;
                granted.insert(role.name);
                granted.insert(role.grants.begin(), role.grants.end());
            }
            EXPECT_EQ(described, 1) << name;
        }
        for (const auto& a : sampleDevice().accounts) {
            if (a.group != profile.name) continue;
            ++managed;
            std::set<std::string> memberOf;
            for (const auto& g : sampleDevice().groups)
                for (const std::string& member : g.members)
                    if (member == a.name) memberOf.insert(g.name);
            EXPECT_EQ(memberOf, granted) << a.name;
        }
    }
    EXPECT_EQ(managed, 5) << "the managed accounts fill the default limit of five";
}

// README's table and the paragraph after it: every account row and every "`name` (id)" agree
// with the description, and every account of the description is named there.
TEST(SampleDeviceDescription, ReadmeTableMatches) {
    const std::string readme = readFile(TVC_SOURCE_DIR "/README.md");
    const std::size_t begin = readme.find("Sample accounts");
    ASSERT_NE(begin, std::string::npos);
    std::istringstream section(readme.substr(begin, readme.find("\n## ", begin) - begin));
    const auto idOf = [](const std::string& name) {
        for (const auto& a : sampleDevice().accounts)
            if (a.name == name) return a.uid;
        return sampleDevice().group(name).gid;
    };
    std::set<std::string> named;
    for (std::string line; std::getline(section, line);) {
        // | account | uid | group gid | password | notes |
        std::istringstream row(line);
        std::string bar, name, uid, group, gid, password;
        if (row >> bar >> name >> bar >> uid >> bar >> group >> gid >> bar >> password && uid != "|" &&
            std::isdigit(static_cast<unsigned char>(uid[0]))) {
            const auto& a = sampleDevice().account(name);
            EXPECT_EQ(uid + " " + group + " " + gid + " " + password,
                      std::to_string(a.uid) + " " + a.group + " " + std::to_string(idOf(a.group)) + " " +
                          (a.password.empty() ? "locked" : a.password));
            named.insert(name);
        }
        // `name` (id)
        for (std::size_t at = line.find('`'); at != std::string::npos; at = line.find('`', at + 1)) {
            const std::size_t end = line.find("` (", at + 1);
            if (end == std::string::npos || line.find('`', at + 1) != end) continue;
            const std::string name = line.substr(at + 1, end - at - 1);
            EXPECT_EQ(line.substr(end + 3, line.find(')', end) - end - 3), std::to_string(idOf(name))) << name;
            named.insert(name);
            at = end;
        }
    }
    for (const auto& a : sampleDevice().accounts) EXPECT_TRUE(named.count(a.name)) << a.name << " is not in README";
}

TEST_F(SampleDevice, FixturePutsBackContentsOwnersAndModes) {
    tvc::test::writeFile("/etc/passwd", "root:x:0:0:root:/root:/bin/bash\n");
    ASSERT_EQ(chown("/etc/shadow", 0, 0), 0);
    ASSERT_EQ(chmod("/etc/shadow", 0600), 0);
    ASSERT_EQ(getpwnam("admin"), nullptr);
    tvc::test::restoreSampleDevice();
    for (const auto& [name, text] : describedFiles()) EXPECT_EQ(readFile("/etc/" + name), text) << name;
    EXPECT_EQ(ownerAndMode("/etc/shadow"), "0:42 640");
    EXPECT_NE(getpwnam("admin"), nullptr);
}

// Runs the sandbox script with `args` as `uid`; its exit status and what it printed.
std::pair<int, std::string> runSandbox(const std::vector<std::string>& args, uid_t uid = 0) {
    int out[2];
    if (pipe(out) != 0) return {-1, "pipe"};
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], 1);
        dup2(out[1], 2);
        close(out[0]);
        if (uid != 0 && (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0)) _exit(126);
        std::vector<char*> argv{const_cast<char*>(tvc::test::sandboxScript())};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    close(out[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), text};
}

// A sandbox inside this one: whatever its command does to /etc, /home and /var/log stays in it.
TEST_F(SampleDevice, NestedSandboxChangesNothingOutsideAndKeepsItsInterface) {
    const std::string before = readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group");
    const auto [status, out] = runSandbox(
        {"--", "sh", "-c",
         "cat /etc/passwd; echo intruder:x:0:0::/:/bin/sh >>/etc/passwd; : >/etc/shadow; rm /etc/group;"
         "mkdir /home/intruder; echo x >/var/log/tvc-intruder; test \"$TVC_SANDBOX\" = 1 && exit 3"});
    EXPECT_EQ(status, 3);
    EXPECT_EQ(out, describedFiles().at(0).second);
    EXPECT_EQ(readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group"), before);
    EXPECT_EQ(ownerAndMode("/home/intruder") + " " + ownerAndMode("/var/log/tvc-intruder"), "missing missing");

    const std::string refused = "tvc-sandbox: cannot create the device sandbox: needs root (running as uid 65534)\n";
    const std::string usage = "usage: tvc-sandbox [--fallback] [--] COMMAND [ARGS...]\n";
    const std::pair<std::pair<int, std::string>, std::pair<int, std::string>> cases[] = {
        {runSandbox({}), {2, usage}},
        {runSandbox({"--bogus", "true"}), {2, usage}},
        {runSandbox({"--", "true"}, 65534), {125, refused}},
        {runSandbox({"--fallback", "sh", "-c", "echo \"${TVC_SANDBOX-unset} $TVC_SANDBOX_ERROR\""}, 65534),
         {0, "unset needs root (running as uid 65534)\n"}},
    };
    for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

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
