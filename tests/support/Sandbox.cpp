// The sandbox helpers, and main() of every test binary: started outside a device sandbox, it re-executes
// itself through tools/sandbox/tvc-sandbox, which sets TVC_SANDBOX (inside) or TVC_SANDBOX_ERROR.
#include "support/Sandbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace tvc::test {

static std::string env(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }

[[noreturn]] static void fail(const std::string& what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), what + " " + path);
}

std::string pristineDir() { return env("TVC_SANDBOX_PRISTINE"); }
const char* sandboxScript() { return TVC_SANDBOX_SCRIPT; }

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("open", path);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) fail("read", path);
    return text;
}

void writeFile(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::FILE* file = fd < 0 ? nullptr : fdopen(fd, "w");
    if (file == nullptr) fail("open", path);
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !written) fail("write", path);
}

void addLines(const std::string& path, const std::string& text, bool inFront) {
    writeFile(path, inFront ? text + readFile(path) : readFile(path) + text);
}

void removeEntry(const std::string& path, const std::string& name) {
    const std::string text = "\n" + readFile(path);
    const std::size_t at = text.find("\n" + name + ":");
    ASSERT_NE(at, std::string::npos) << name << " in " << path;
    writeFile(path, text.substr(1, at) + text.substr(text.find('\n', at + 1) + 1));
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

std::string lineOf(const std::string& path, const std::string& name) {
    for (const std::string& line : lines(path))
        if (line.rfind(name + ":", 0) == 0) return line;
    return "";
}

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> result(1);
    for (char c : line) c == ':' ? result.emplace_back() : result.back() += c;
    return result;
}

Result finish(std::FILE* command) {
    Result result;
    char buffer[4096];
    if (command == nullptr) return result;
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, command)) > 0;) result.output.append(buffer, n);
    const int status = pclose(command);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

Result run(const std::string& command) { return finish(popen(command.c_str(), "re")); }

void restoreSampleDevice() {
    if (pristineDir().empty()) throw std::runtime_error("TVC_SANDBOX_PRISTINE is not set");
    for (const std::string name : {"passwd", "group", "shadow", "gshadow"}) {
        const std::string source = pristineDir() + "/" + name, target = "/etc/" + name;
        struct stat original {};
        if (stat(source.c_str(), &original) != 0) fail("stat", source);
        // Owner and mode are set again: a test may have replaced the file with one of its own.
        writeFile(target, readFile(source));
        if (chown(target.c_str(), original.st_uid, original.st_gid) != 0) fail("chown", target);
        if (chmod(target.c_str(), original.st_mode & 07777) != 0) fail("chmod", target);
    }
}

void SandboxTest::SetUp() {
    if (env("TVC_SANDBOX") != "1") {
        const std::string reason = "no device sandbox: " + env("TVC_SANDBOX_ERROR");
        if (env("CI") == "true") FAIL() << reason;
        GTEST_SKIP() << reason;
    }
    ASSERT_NO_THROW(restoreSampleDevice());
}

}  // namespace tvc::test

int main(int argc, char** argv) {
    char self[PATH_MAX];
    if (std::getenv("TVC_SANDBOX") == nullptr && std::getenv("TVC_SANDBOX_ERROR") == nullptr) {
        // The device gets the PAM modules built with the tests, unless the caller names others.
        setenv("TVC_PAM_DIR", TVC_PAM_DIR, 0);
        if (realpath("/proc/self/exe", self) != nullptr) {
            std::vector<char*> args{const_cast<char*>(TVC_SANDBOX_SCRIPT), const_cast<char*>("--fallback"),
                                    const_cast<char*>("--"), self};
            args.insert(args.end(), argv + 1, argv + argc);
            args.push_back(nullptr);
            execv(TVC_SANDBOX_SCRIPT, args.data());
        }
        // Still here: the tests run on the host, and the fixtures skip what needs the device.
        setenv("TVC_SANDBOX_ERROR",
               ("cannot start " TVC_SANDBOX_SCRIPT ": " + std::string(std::strerror(errno))).c_str(), 1);
    }
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    // 77 is ctest's "skipped": a missing sandbox must not pass silently; a failure wins over a skip.
    return status == 0 && testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? 77 : status;
}
