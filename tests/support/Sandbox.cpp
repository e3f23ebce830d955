#include "support/Sandbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace tvc::test {

namespace {

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), what + " " + path);
}

// Closes the descriptor on every path out, including throws.
struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

void writeAll(int fd, const std::string& text, const std::string& path) {
    for (std::size_t done = 0; done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("write", path);
        }
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

bool sandboxActive() { return env("TVC_SANDBOX") == "1"; }

std::string sandboxError() { return sandboxActive() ? "" : env("TVC_SANDBOX_ERROR"); }

std::string pristineDir() { return env("TVC_SANDBOX_PRISTINE"); }

const char* sandboxScript() { return TVC_SANDBOX_SCRIPT; }

std::string readFile(const std::string& path) {
    Fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) fail("open", path);
    std::string text;
    char buffer[8192];
    for (;;) {
        ssize_t n = read(file.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail("read", path);
        if (n == 0) return text;
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

void writeFile(const std::string& path, const std::string& text) {
    Fd file{open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    if (file.fd < 0) fail("open", path);
    writeAll(file.fd, text, path);
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

void restoreSampleDevice() {
    const std::string pristine = pristineDir();
    if (pristine.empty()) throw std::runtime_error("TVC_SANDBOX_PRISTINE is not set");
    for (const char* name : {"passwd", "group", "shadow", "gshadow"}) {
        const std::string source = pristine + "/" + name;
        const std::string target = std::string("/etc/") + name;
        struct stat original {};
        if (stat(source.c_str(), &original) != 0) fail("stat", source);
        const std::string text = readFile(source);
        // Rewritten in place; owner and mode are set again because a test may have replaced
        // the file with one of its own.
        Fd file{open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
        if (file.fd < 0) fail("open", target);
        writeAll(file.fd, text, target);
        if (fchown(file.fd, original.st_uid, original.st_gid) != 0) fail("fchown", target);
        if (fchmod(file.fd, original.st_mode & 07777) != 0) fail("fchmod", target);
    }
}

void SandboxTest::SetUp() {
    if (!sandboxActive()) {
        const std::string reason = "no device sandbox: " + sandboxError();
        if (env("CI") == "true") FAIL() << reason;
        GTEST_SKIP() << reason;
    }
    ASSERT_NO_THROW(restoreSampleDevice());
}

}  // namespace tvc::test
