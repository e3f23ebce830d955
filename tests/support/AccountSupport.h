// What the suites on the sample device share: its configuration without the pause after an
// unknown name, the outcome of a call as text (for tables of expected answers), threads acting
// as an account, and a fixture that records the account events and the commands run.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <tarvicexception/TvcException.h>
#include <umlog/Ctx.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/User.h>

#include "sampledevice/SampleCatalogue.h"
#include "support/DeviceFixture.h"
#include "support/RecordingLogger.h"
#include "support/Sandbox.h"

namespace tvc::test {

struct QuickDefinition : tvc::sample::SampleDefinition {
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

// "ok", or "<code> <message>" of the library exception `call` throws.
inline std::string outcome(const std::function<void()>& call) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId()) + " " + e.what();
}

// "ok", or only the code.
inline std::string outcomeCode(const std::function<void()>& call) {
    const std::string text = outcome(call);
    return text.substr(0, text.find(' '));
}

// The calling thread's real, effective and saved user and group ids, and its groups.
inline std::string threadIds() {
    uid_t u[3];
    gid_t g[3];
    getresuid(&u[0], &u[1], &u[2]);
    getresgid(&g[0], &g[1], &g[2]);
    std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
    groups.resize(static_cast<std::size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
    std::string text = std::to_string(u[0]) + " " + std::to_string(u[1]) + " " + std::to_string(u[2]) + " / " +
                       std::to_string(g[0]) + " " + std::to_string(g[1]) + " " + std::to_string(g[2]) + " /";
    for (gid_t group : groups) text += " " + std::to_string(group);
    return text;
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
