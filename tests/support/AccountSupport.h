// What the suites on the sample device share: its configuration without the pause after an
// unknown name, the outcome of a call as text (for tables of expected answers), threads acting
// as an account, and a fixture that records the account events and the commands run.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>

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

// Runs `body` on a thread acting as `account` through the library's switch (null: as the
// process's own root); the thread must end with exactly the ids it started with.
inline void actingAs(const usermanagement::User* account, const std::function<void()>& body) {
    std::thread([&] {
        uid_t uid[3], gid[3], uidAfter[3], gidAfter[3];
        getresuid(&uid[0], &uid[1], &uid[2]);
        getresgid(&gid[0], &gid[1], &gid[2]);
        {
            usermanagement::SystemPermission permission;
            if (account != nullptr) permission.setUserPermission(*account);
            body();
        }
        getresuid(&uidAfter[0], &uidAfter[1], &uidAfter[2]);
        getresgid(&gidAfter[0], &gidAfter[1], &gidAfter[2]);
        EXPECT_TRUE(std::equal(uid, uid + 3, uidAfter) && std::equal(gid, gid + 3, gidAfter));
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
