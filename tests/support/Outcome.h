// What the suites on the sample device share: its configuration without the pause after an
// unknown name, the outcome of a call as text (for tables of expected answers), and threads
// acting as an account.
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

}  // namespace tvc::test
