// main() of every test binary.  Started outside a device sandbox, a binary re-executes itself
// through tools/sandbox/tvc-sandbox, which sets TVC_SANDBOX (inside) or TVC_SANDBOX_ERROR.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifndef TVC_SANDBOX_SCRIPT
#error "TVC_SANDBOX_SCRIPT must name tools/sandbox/tvc-sandbox"
#endif

namespace {

// Returns only when the sandbox could not be started: the tests then run on the host and the
// fixtures skip what needs the device.
void reexecInSandbox(int argc, char** argv) {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length >= 0) {
        self[length] = '\0';
        std::vector<char*> args{const_cast<char*>(TVC_SANDBOX_SCRIPT), const_cast<char*>("--fallback"),
                                const_cast<char*>("--"), self};
        args.insert(args.end(), argv + 1, argv + argc);
        args.push_back(nullptr);
        execv(TVC_SANDBOX_SCRIPT, args.data());
    }
    const char* failed = length < 0 ? "readlink /proc/self/exe: " : "exec " TVC_SANDBOX_SCRIPT ": ";
    setenv("TVC_SANDBOX_ERROR", (failed + std::string(std::strerror(errno))).c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (std::getenv("TVC_SANDBOX") == nullptr && std::getenv("TVC_SANDBOX_ERROR") == nullptr)
        reexecInSandbox(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    // 77 is ctest's "skipped" (SKIP_RETURN_CODE): a missing sandbox must not pass silently,
    // and a failure always wins over a skip.
    return status == 0 && testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? 77 : status;
}
