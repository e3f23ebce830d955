// The account object and the rights check on the sample device: state flags
// from crafted shadow entries and tally records, rights decided under real thread identities.
#include <chrono>
#include <ctime>
#include <map>

#include <authnz/AuthNZException.h>
#include <usermanagement/Rbac.h>
#include <usermanagement/UMException.h>

#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

// The sample device's settings with no pause for unknown names and a tally of our own.
class Definition : public UserDefinition {
public:
    unsigned int delay = 0;
    int lockLimit = -1;
    unsigned int getDBDelayWrongCredential() override { return delay; }
    void getDBLockCount(int& count) override { count = lockLimit; }
    std::string getTallyFilePath() override { return "/etc/tvc-tallylog"; }
};

using AccountTest = DeviceTest<Definition>;

// "allowed", or the refusal as "code user".
std::string decision(UserDefinition::Action action, User* target) {
    try {
        UserDefinition::GetUserDefinition().checkRight(action, target);
        return "allowed";
    } catch (const authnz::AuthorizationException& e) {
        return std::to_string(e.getErrorId()) + " " + e.getUser();
    }
}

std::string flags(const User& user) {
    return std::string(user.isActive() ? "A" : "-") + (user.isPasswordExpired() ? "P" : "-") +
           (user.isLocked() ? "L" : "-") + (user.isAccountExpired() ? "E" : "-");
}

TEST_F(AccountTest, StateComesFromTheShadowEntryAndTheTally) {
    const long today = static_cast<long>(std::time(nullptr)) / 86400;
    const auto day = [today](long offset) { return std::to_string(today + offset); };
    const auto store = [](const std::string& shadowFields, int tallyCount) {
        removeEntry("/etc/shadow", "viewer");
        if (!shadowFields.empty()) addLines("/etc/shadow", "viewer:" + shadowFields + "\n");
        std::string record(10002 * 64 + 64, '\0');  // viewer's record in the tally file
        record[10002 * 64 + 54] = static_cast<char>(tallyCount);
        writeFile("/etc/tvc-tallylog", record);
    };
    const struct {
        std::string fields;  // the shadow entry of viewer after the name
        int tallyCount, limit;
        std::string expected;
    } cases[] = {
        {"$6$x$y:" + day(0) + ":0:99999:7:::", 0, -1, "A---"},
        {"!!$6$x$y:" + day(0) + ":0:99999:7:::", 0, -1, "----"},
        {"$6$x$y:0:0::7:::", 0, -1, "AP--"},                   // changed on day 0: expired anyway
        {"$6$x$y::0:1:7:::", 0, -1, "A---"},                   // no last change: no ageing
        {"$6$x$y:" + day(-10) + ":0:10:7:::", 0, -1, "A---"},  // exactly the maximum age
        {"$6$x$y:" + day(-11) + ":0:10:7:::", 0, -1, "AP--"},
        {"$6$x$y:" + day(-15) + ":0:10:7:5::", 0, -1, "AP--"},  // inactive for exactly 5 days
        {"$6$x$y:" + day(-16) + ":0:10:7:5::", 0, -1, "APL-"},
        {"$6$x$y:" + day(0) + ":0:99999:7::" + day(0) + ":", 0, -1, "A---"},  // expires today: not yet
        {"$6$x$y:" + day(0) + ":0:99999:7::" + day(-1) + ":", 0, -1, "A--E"},
        {"$6$x$y:" + day(0) + ":0:99999:7:::", 3, 3, "A-L-"},
        {"$6$x$y:" + day(0) + ":0:99999:7:::", 2, 3, "A---"},
        {"$6$x$y:" + day(0) + ":0:99999:7:::", 9, -1, "A---"},  // no limit: never locked
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        store(c.fields, c.tallyCount);
        definition.lockLimit = c.limit;
        User viewer("viewer");
        EXPECT_EQ(flags(viewer), "-PLE");  // looked up, not yet read
        viewer.updateState();
        EXPECT_EQ(flags(viewer), c.expected);
    }
    // The lock record: reached exactly, or beyond.
    definition.lockLimit = 3;
    for (const auto& [count, expected] : {std::pair{3, "locked justLocked"}, {4, "locked"}}) {
        store("$6$x$y:1:0:99999:7:::", count);
        LookLockUpdate look;
        User("viewer").retrieveLockState(look);
        EXPECT_EQ(std::string(look.locked ? "locked" : "") + (look.justLocked ? " justLocked" : ""), expected);
    }
    store("!!$6$x$y:1:0:99999:7:::", 0);
    EXPECT_EQ(User("viewer").getEncryptedPassword(), "$6$x$y");
    EXPECT_EQ(User("admin").getEncryptedPassword(), fields(lineOf("/etc/shadow", "admin"))[1]);
    store("", 0);
    EXPECT_EQ(User("viewer").getEncryptedPassword(), "");
    EXPECT_THROW(User("viewer").updateState(), UMException);
}

// Unknown accounts: code 5, after the configured pause and before any rights check.
TEST_F(AccountTest, UnknownAccountsFailAfterThePause) {
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { User("nosuch"); }, "User uid not found in the system (retrieveUID from username):nosuch"},
        {[] { User(4242u); }, "User uid not found in the system (retrieveUserName from uid):4242"},
        {[] { Rbac::RetrieveUserId("nosuch"); }, "nosuch :User not found"},
    };
    for (const auto& [call, message] : cases) EXPECT_EQ(outcome(call), "5 " + message);
    definition.delay = 1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(User("nosuch"), UMException);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

// The rights check judges the calling thread's own identity: threads acting as different
// accounts at once each get the answers their account gets alone.  Who may do what to whom is
// rights_test's table; an action the policy does not know is refused even to root.
TEST_F(AccountTest, ConcurrentRightsChecksJudgeEachThreadsOwnIdentity) {
    const char* const callers[] = {"admin", "root", "viewer", "www-data", "svc-backup"};
    User viewer("viewer");
    const auto answers = [&] {
        std::string text;
        for (int action = 0; action <= 6; ++action)
            text += " " + decision(static_cast<UserDefinition::Action>(action), action % 3 ? &viewer : nullptr);
        return text;
    };
    std::map<std::string, std::string> alone;
    for (const char* caller : callers) as(caller, [&] { alone[caller] = answers(); });
    EXPECT_EQ(alone["root"], " allowed allowed allowed allowed allowed allowed 302 root");
    EXPECT_EQ(alone["viewer"], " 302 viewer 302 viewer allowed 302 viewer 302 viewer allowed 302 viewer");
    std::vector<std::thread> threads;
    for (const char* caller : callers)
        for (int copy = 0; copy < 3; ++copy)
            threads.emplace_back([&, caller] {
                as(caller, [&] {
                    for (int n = 0; n < 20; ++n) EXPECT_EQ(answers(), alone[caller]) << caller;
                });
            });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(geteuid(), 0u);
}

}  // namespace
