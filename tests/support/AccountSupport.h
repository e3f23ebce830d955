// What the suites on the sample device share: its configuration without the pause after an unknown
// name, a call's outcome as text, threads acting as an account, and a fixture recording the account
// events and the commands run.
#pragma once

#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <tarvicexception/TvcException.h>
#include <umlog/Ctx.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/User.h>

#include "sampledevice/SampleConfiguration.h"
#include "support/DeviceFixture.h"
#include "support/RecordingLogger.h"
#include "support/Sandbox.h"

namespace tvc::test {

struct QuickDefinition : tvc::sample::SampleSettings {
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

// "ok", or "<code> <message>" of the library exception `call` throws; described() adds
// " | <description>".
inline std::string outcomeText(const std::function<void()>& call, bool details) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId()) + " " + e.what() +
           (details ? std::string(" | ") + e.getErrorDescription() : "");
}
inline std::string outcome(const std::function<void()>& call) { return outcomeText(call, false); }
inline std::string described(const std::function<void()>& call) { return outcomeText(call, true); }

// "ok", or only the code.
inline std::string outcomeCode(const std::function<void()>& call) {
    const std::string text = outcome(call);
    return text.substr(0, text.find(' '));
}

// "Uid: R E S F Gid: R E S F Groups: ... " out of a /proc status text (groups sorted by the kernel).
inline std::string idsIn(std::istream&& status) {
    std::string ids;
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Uid:", 0) == 0 || line.rfind("Gid:", 0) == 0 || line.rfind("Groups:", 0) == 0) {
            std::istringstream words(line);
            for (std::string word; words >> word;) ids += word + " ";
        }
    return ids;
}

// The calling thread's ids and groups, or with "self" the main thread's.
inline std::string threadIds(const std::string& task = "thread-self") {
    return idsIn(std::ifstream("/proc/" + task + "/status"));
}

// Runs `body` on a thread acting as `account` through the library's switch (null: as the
// process's own root); the thread must end with exactly the identity it started with.
inline void actingAs(const usermanagement::User* account, const std::function<void()>& body) {
    std::thread([&] {
        const std::string before = threadIds();
        {
            usermanagement::SystemPermission permission;
            if (account != nullptr) permission.setUserPermission(*account);
            body();
        }
        EXPECT_EQ(threadIds(), before);
    }).join();
}

// The same, for the account `name` looked up first.
inline void as(const std::string& name, const std::function<void()>& body) {
    const usermanagement::User account(name);
    int count = 0;
    account.getUserGroupsIds(count);
    actingAs(&account, body);
}

constexpr const char* kCommandLog = "/var/log/tvc-commands.log";

// The sample device without failed logins, the commands log emptied, and a recording sink.
class AccountsTest : public DeviceTest<QuickDefinition> {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        unlink("/var/log/tallylog");
        takeCommands();
        umlog::Ctx::getCtx().setUsername("admin");
    }

    // The commands recorded since the last call, one line each.
    static std::string takeCommands() {
        std::string text = readFile(kCommandLog);
        writeFile(kCommandLog, "");
        return text;
    }

    // The account events logged since the last call: "<id> <text>" lines.
    std::string takeEvents() {
        using usermanagement::LogSeverity;
        std::string text;
        for (const auto& m : sink.messages) {
            if (m.category != usermanagement::LogCategory::UserAccount) continue;
            EXPECT_EQ(m.severity, m.messageId == 9 ? LogSeverity::Warning : LogSeverity::Notice) << m.text;
            text += std::to_string(m.messageId) + " " + m.text + "\n";
        }
        sink.messages.clear();
        return text;
    }

    RecordingLogger sink;
};

}  // namespace tvc::test
