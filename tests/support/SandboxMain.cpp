// main() of every test binary.  Started outside a device sandbox, a binary re-executes itself
// through tools/sandbox/tvc-sandbox, which sets TVC_SANDBOX (inside) or TVC_SANDBOX_ERROR.  It
// passes TVC_PAM_DIR on, so that the sandbox installs the sample device's PAM stack.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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
