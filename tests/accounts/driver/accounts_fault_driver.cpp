// One account operation in a process of its own, run by the user manager "admin" (the thread
// becomes root only inside the operation), to inject failures into.
//     accounts_fault_driver [--fail POINT N] create NAME | update NAME NEW | reset NAME | remove NAME
//     accounts_fault_driver [--fail|--kill POINT N] migrate
// --fail: the Nth call of libfiu's failure point POINT within the operation fails with EIO (with
// fiu's POSIX preload library loaded); --kill: the process is killed (SIGKILL) there instead.
// Prints "ok" or "error <id> <message>", the thread's ids before and after the operation (not
// for the migration, run as the process's own root; its "ok" is followed by each managed
// account's profile and state), then "lock free" when the process, root again, can take the
// password-file lock through lckpwdf and the library.  With TVC_DRIVER_EVENTS set, the logged
// account events follow, one "event <text>" line each.
#include <shadow.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/Migration.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/User.h>
#include <usermanagement/Utilities.h>

#include "sampledevice/SampleConfiguration.h"
#include "support/RecordingLogger.h"

#ifdef FIU_ENABLE  // built with libfiu
#include <fiu-control.h>
#include <fiu.h>
#endif

using namespace usermanagement;

namespace {

// A finished SHA-512 crypt hash: storing it needs neither crypt() nor the password rules.
constexpr const char* kReadyHash =
    "$6$tvcready$hEi8dXaaRXf56PUuuXS8Gu29gbhXkd4isSjTFxukMfTFAUnQYWduwxGwcusqFQ6BIPvkikZX/9T5G.mpQ44Ii1";
constexpr int kViewers = 2;

// The sample device without the pause after an unknown name.
struct DriverDefinition : tvc::sample::SampleSettings {
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

int failingCall = 0;
bool killAtCall = false;

bool enableFailure(const std::string& point) {
#ifdef FIU_ENABLE
    const auto nth = [](const char*, int*, void**, unsigned int*) {
        static int calls = 0;
        if (++calls != failingCall) return 0;
        if (killAtCall) raise(SIGKILL);
        return 1;
    };
    return fiu_init(0) == 0 &&
           fiu_enable_external(point.c_str(), 1, reinterpret_cast<void*>(intptr_t{EIO}), 0, nth) == 0;
#else
    return point.empty();
#endif
}

std::string ids() {
    uid_t u[3] = {};
    gid_t g[3] = {}, groups[64];
    const int count = getresuid(&u[0], &u[1], &u[2]) + getresgid(&g[0], &g[1], &g[2]) == 0 ? getgroups(64, groups) : 0;
    std::string text = "ids";
    for (const unsigned int id : {u[0], u[1], u[2], g[0], g[1], g[2]}) text += " " + std::to_string(id);
    text += " groups";
    for (int i = 0; i < count; ++i) text += " " + std::to_string(groups[i]);
    return text;
}

// "ok" (after a migration, each managed account's profile and state follow), or "bad request"
// for a request it does not know.
std::string operate(const std::vector<std::string>& args) {
    const bool skipCheck = true;
    const int operators = 1;
    if (args.size() == 1 && args[0] == "migrate") {
        filesSystemMigration();
        std::string text = "ok";
        for (User& user : utilities::getUserList()) {
            user.updateState();
            text += "\n" + user.getUserName() + " " + user.getProfile().getName() + (user.isActive() ? " on" : " off");
        }
        return text;
    }
    if (args.size() == 2 && args[0] == "create")
        User::createUserWithEncryptedPassword(args[1], kReadyHash, kViewers, true, false, &skipCheck);
    else if (args.size() == 3 && args[0] == "update")
        User(args[1]).updateUser(&args[2], &operators, nullptr, nullptr, nullptr, &skipCheck);
    else if (args.size() == 2 && args[0] == "reset")
        User(args[1]).updateAnyUserPassword(args[1], "Reset#2026", false, "", false);
    else if (args.size() == 2 && args[0] == "remove")
        User(args[1]).removeUser();
    else
        return "bad request";
    return "ok";
}

}  // namespace

int main(int argc, char** argv) {
    // fiu's preload library is loaded in this process already; the programs the library starts
    // (sudo, the cache reload) have no failure enabled and need none.  Under qemu they are host
    // programs, whose loader would refuse the ARM library with a warning in the output.
    unsetenv("LD_PRELOAD");
    std::vector<std::string> args(argv + 1, argv + argc);
    DriverDefinition definition;
    tvc::sample::SampleProfiles catalogue;
    definition.setUserDefinition(definition);
    catalogue.setProfileDefinition(catalogue);
    tvc::test::RecordingLogger events;
    const bool inject = args.size() > 3 && (args[0] == "--fail" || args[0] == "--kill");
    if (inject) failingCall = std::atoi(args[2].c_str()), killAtCall = args[0] == "--kill";
    const std::vector<std::string> request(args.begin() + (inject ? 3 : 0), args.end());
    std::string result = "bad request";
    // Failures count from here: the identity switch before it has none.
    const auto attempt = [&] {
        try {
            if (!inject || enableFailure(args[1])) result = operate(request);
        } catch (const tarvicexception::TvcException& e) {
            result = "error " + std::to_string(e.getErrorId()) + " " + e.what();
        } catch (const std::exception& e) {
            result = std::string("error ") + e.what();
        }
    };
    if (request.size() == 1 && request[0] == "migrate") {
        attempt();
    } else {
        SystemPermission manager;
        manager.setUserPermission("admin");
        const std::string before = ids();
        attempt();
        result += "\n" + before + "\n" + ids();
    }
    // The lock of the process, then the library's gate, which a state read passes.
    bool free = lckpwdf() == 0 && ulckpwdf() == 0;
    try {
        User("admin").updateState();
    } catch (const tarvicexception::TvcException&) {
        free = false;
    }
    std::printf("%s\nlock %s\n", result.c_str(), free ? "free" : "held");
    if (std::getenv("TVC_DRIVER_EVENTS") != nullptr)
        for (const auto& m : events.messages)
            if (m.category == LogCategory::UserAccount) std::printf("event %s\n", m.text.c_str());
    return result.rfind("ok", 0) == 0 ? 0 : 1;
}
