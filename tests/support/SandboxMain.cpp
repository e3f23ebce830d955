// main() of every test binary.  Each binary runs in a device sandbox of its own: started
// outside one, it re-executes itself through tools/sandbox/tvc-sandbox, which sets either
// TVC_SANDBOX (inside) or TVC_SANDBOX_ERROR (the sandbox could not be built, see Sandbox.h).
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

// Exit status ctest reads as "skipped" (SKIP_RETURN_CODE in tests/CMakeLists.txt).
constexpr int kSkipped = 77;

void reexecInSandbox(int argc, char** argv) {
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length < 0) {
        setenv("TVC_SANDBOX_ERROR", (std::string("readlink /proc/self/exe: ") + std::strerror(errno)).c_str(), 1);
        return;
    }
    self[length] = '\0';

    std::vector<char*> args{const_cast<char*>(TVC_SANDBOX_SCRIPT), const_cast<char*>("--fallback"),
                            const_cast<char*>("--"), self};
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    execv(TVC_SANDBOX_SCRIPT, args.data());
    // Still here: run the tests on the host; the fixtures skip what needs the device.
    setenv("TVC_SANDBOX_ERROR",
           (std::string("exec " TVC_SANDBOX_SCRIPT ": ") + std::strerror(errno)).c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (std::getenv("TVC_SANDBOX") == nullptr && std::getenv("TVC_SANDBOX_ERROR") == nullptr)
        reexecInSandbox(argc, argv);

    testing::InitGoogleTest(&argc, argv);
    int status = RUN_ALL_TESTS();
    // A binary whose tests were (partly) skipped and none failed reports "skipped" to ctest,
    // so a missing sandbox does not pass silently; a failure always wins over a skip.
    const testing::UnitTest& run = *testing::UnitTest::GetInstance();
    if (status == 0 && run.skipped_test_count() > 0) return kSkipped;
    return status;
}
