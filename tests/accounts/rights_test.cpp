// Rights that hold against every caller.  Each sample account, acting through the library's own
// identity switch as a web request would, tries every operation that changes or reveals an
// account on every kind of target: itself, another managed account, the main account, root,
// the web server's account, a service account, an object a session kept while a manager
// renamed accounts around it, and an object whose name was changed with setUserName.  The
// expected answer of each case comes from the policy below; after every refusal the account
// files are byte for byte as before, no event was logged and no command ran.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <umlog/Ctx.h>
#include <usermanagement/ErrorCodes.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>
#include <usermanagement/User.h>

#include "support/DeviceFixture.h"
#include "support/RecordingLogger.h"
#include "support/Sandbox.h"

using namespace usermanagement;

namespace {

constexpr const char* kCommandLog = "/var/log/tvc-commands.log";

class Definition : public tvc::sample::SampleDefinition {
public:
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

class RightsTest : public tvc::test::DeviceTest<Definition> {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        unlink("/var/log/tallylog");
        umlog::Ctx::getCtx().setUsername("test");
    }

    std::string accountEvents() {
        std::string text;
        for (const auto& m : sink.messages)
            if (m.category == LogCategory::UserAccount) text += std::to_string(m.messageId) + " " + m.text + "\n";
        sink.messages.clear();
        return text;
    }

    tvc::test::RecordingLogger sink;
};

// "ok", or the code of what `call` throws.
std::string outcome(const std::function<void()>& call) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId());
}

// Runs `body` on a thread acting as `caller` (root: the process's own identity, no switch).
void actingAs(User* caller, const std::function<void()>& body) {
    std::thread([&] {
        SystemPermission permission;
        if (caller != nullptr) permission.setUserPermission(*caller);
        body();
    }).join();
}

std::string files() {
    return tvc::test::readFile("/etc/passwd") + tvc::test::readFile("/etc/shadow") +
           tvc::test::readFile("/etc/group") + tvc::test::readFile(kCommandLog);
}

// --- the policy ---------------------------------------------------------------------------------

struct Caller {
    const char* name;
    bool manager;  // holds the user-manager role (through its profile)
    bool self;     // holds the role that may change its own password
};

const Caller kCallers[] = {
    {"root", false, false},     {"admin", true, true},      {"operator", false, true},
    {"viewer", false, true},    {"tech", false, true},      {"guest", false, true},
    {"www-data", false, false}, {"svc-backup", false, false}, {"plainuser", false, true},
};

enum class Target { Self, Other, Main, Root, WebServer, Service, Stale, Renamed };
const Target kTargets[] = {Target::Self, Target::Other,   Target::Main,  Target::Root,
                           Target::WebServer, Target::Service, Target::Stale, Target::Renamed};
const char* targetName(Target t) {
    static const char* const names[] = {"self", "other", "main", "root", "www-data", "svc-web", "stale", "renamed"};
    return names[static_cast<int>(t)];
}

enum Op { Rename, Profile, Disable, Enable, Password, ResetOnOwnObject, Reset, Unlock, Remove, ReadHash, kOps };
const char* const kOpNames[] = {"rename", "profile", "disable", "enable", "password",
                                "reset-own", "reset", "unlock", "remove", "hash"};

bool managed(unsigned int uid) { return uid >= 10000 && uid < 10010; }

// What an operation must answer.  `object` is the target object's uid; `written` the uid of
// the account the operation writes (for a reset: the account its name names now); `stale`:
// the object no longer names its stored account.
// `callerStale`: the caller's own object is stale too (a reset called on it carries its name).
std::string expected(const Caller& c, Op op, unsigned int callerUid, unsigned int object, unsigned int written,
                     bool stale, bool callerStale) {
    const bool root = callerUid == 0, all = root || c.manager;
    const auto ownPassword = [&](unsigned int uid) { return all || (c.self && uid == callerUid); };
    switch (op) {
        case ReadHash:
            return all ? "ok" : "302";
        case Password:
            if (!ownPassword(object)) return "302";
            break;
        case ResetOnOwnObject:
            if (!c.self && !all) return "302";
            if (!ownPassword(written)) return "302";
            break;
        case Reset:
            if (!ownPassword(object) || !ownPassword(written)) return "302";
            break;
        default:
            if (!all) return "302";
    }
    if (!managed(written) && !root) return "305";
    if (op == Remove && object == 10000) return "3";
    if (op == Remove && object == callerUid) return "8";
    if (op == Disable && object == 10000) return "4";
    if (op == ResetOnOwnObject ? callerStale : stale) return "41";
    return "ok";
}

TEST_F(RightsTest, EveryCallerEveryOperationEveryTarget) {
    const std::string newName = "renamed", password = "Other#Pass2026";
    const int viewers = 2;
    const bool no = false, yes = true;
    for (const Caller& c : kCallers)
        for (const Target target : kTargets) {
            SCOPED_TRACE(std::string(c.name) + " on " + targetName(target));
            std::string got, want;
            for (int op = 0; op < kOps; ++op) {
                tvc::test::restoreSampleDevice();
                unlink("/var/log/tallylog");
                // The caller's object and its groups are read before any rename.
                std::unique_ptr<User> caller;
                if (std::string(c.name) != "root") {
                    caller = std::make_unique<User>(c.name);
                    int count = 0;
                    ASSERT_NE(caller->getUserGroupsIds(count), nullptr);
                }
                const std::string other = std::string(c.name) == "guest" ? "tech" : "guest";
                const char* names[] = {c.name, other.c_str(), "admin", "root", "www-data", "svc-web", "viewer", "tech"};
                User object(names[static_cast<int>(target)]);
                if (target == Target::Stale) {
                    // A session kept viewer's object; then a manager renamed viewer and gave
                    // tech the name viewer.
                    const std::string oldName = "viewer-old", viewerName = "viewer";
                    User("viewer").updateUser(&oldName, nullptr, nullptr, nullptr, nullptr, nullptr);
                    User("tech").updateUser(&viewerName, nullptr, nullptr, nullptr, nullptr, nullptr);
                }
                if (target == Target::Renamed) object.setUserName("admin");
                const std::string name = object.getUserName();
                const unsigned int written = op == ResetOnOwnObject || op == Reset ? User(name).getUid() : object.getUid();
                const unsigned int callerUid = caller ? caller->getUid() : 0;
                const bool callerStale = target == Target::Stale && (callerUid == 10002 || callerUid == 10003);
                want += std::string(" ") + kOpNames[op] + "=" +
                        expected(c, static_cast<Op>(op), callerUid, object.getUid(), written,
                                 target == Target::Stale || target == Target::Renamed, callerStale);
                User own = caller ? *caller : User("root");

                accountEvents();
                const std::string before = files();
                std::string result;
                actingAs(caller.get(), [&] {
                    result = outcome([&] {
                        switch (static_cast<Op>(op)) {
                            case Rename:
                                return object.updateUser(&newName, nullptr, nullptr, nullptr, nullptr, nullptr);
                            case Profile:
                                return object.updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr);
                            case Disable:
                                return object.updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr);
                            case Enable:
                                return object.updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr);
                            case Password:
                                return object.updateUser(nullptr, nullptr, nullptr, &password, nullptr, nullptr);
                            case ResetOnOwnObject:
                                return own.updateAnyUserPassword(name, password, false, "", false);
                            case Reset:
                                return object.updateAnyUserPassword(name, password, false, "", false);
                            case Unlock:
                                return object.unLock();
                            case Remove:
                                return object.removeUser();
                            case ReadHash:
                                (void)object.getEncryptedPassword();
                                return;
                            case kOps:
                                break;
                        }
                    });
                });
                got += std::string(" ") + kOpNames[op] + "=" + result;
                if (result != "ok") {
                    EXPECT_TRUE(files() == before) << kOpNames[op] << " refused, but the files changed";
                    EXPECT_EQ(accountEvents(), "") << kOpNames[op];
                }
            }
            EXPECT_EQ(got, want);
        }
}

// Guessing through the holder's password change is counted like guessing at the login: the
// third wrong current password locks the account (one "locked" event), a locked account cannot
// change its password even with the right one, and after a manager's unlock it can.
TEST_F(RightsTest, WrongCurrentPasswordsInAPasswordChangeLockTheAccount) {
    const std::string right = "Admin#2026", fresh = "Fresh#Pass2026x";
    const struct {
        const char* form;
        std::function<void(std::string, std::string)> change;
    } forms[] = {
        {"holder's object",
         [](std::string old, std::string next) { User("admin").updatePassword(old, next, "192.0.2.9"); }},
        {"by name", [](std::string old, std::string next) { User::updateAnyUserPassword("admin", old, next, ""); }},
    };
    for (const auto& f : forms) {
        SCOPED_TRACE(f.form);
        tvc::test::restoreSampleDevice();
        unlink("/var/log/tallylog");
        const std::string shadow = tvc::test::readFile("/etc/shadow");
        accountEvents();
        User viewer("viewer");
        int count = 0;
        ASSERT_NE(viewer.getUserGroupsIds(count), nullptr);
        std::string answers;
        actingAs(&viewer, [&] {
            for (int guess = 0; guess < 5; ++guess) answers += outcome([&] { f.change("Guess#" + std::to_string(guess), fresh); }) + " ";
            answers += outcome([&] { f.change(right, fresh); });
        });
        EXPECT_EQ(answers, "18 18 18 18 18 18");
        EXPECT_EQ(accountEvents(), "9 User account - locked <admin>\n");
        EXPECT_EQ(tvc::test::readFile("/etc/shadow"), shadow);
        User("admin").unLock();
        accountEvents();
        actingAs(&viewer, [&] { EXPECT_EQ(outcome([&] { f.change(right, fresh); }), "ok"); });
        EXPECT_NE(tvc::test::readFile("/etc/shadow"), shadow);
        // The right password reset the count, as a login does.
        std::shared_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM("admin", "", authnz::WebPam::WebLogin));
        EXPECT_EQ(outcome([&] { pam->pamAuthentication(fresh.c_str()); }), "ok");
    }
}

// The main account stays enabled whichever path writes its shadow field.
TEST_F(RightsTest, NoPathDisablesTheMainAccount) {
    const bool skip = true, no = false;
    const std::string disabled = "!!$6$tvcadmin2026$x", locked = "!$6$tvcadmin2026$x", star = "*";
    const auto noMainAccount = [] {
        tvc::test::removeEntry("/etc/passwd", "admin");
        tvc::test::removeEntry("/etc/shadow", "admin");
    };
    const struct {
        const char* path;
        std::function<void()> run;
        std::string expected;
        std::function<void()> setUp = [] {};
    } cases[] = {
        {"disable", [&] { User("admin").updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr); }, "4"},
        {"hash !!", [&] { User("admin").updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &disabled, nullptr, &skip); }, "4"},
        {"hash !", [&] { User("admin").updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &locked, nullptr, &skip); }, "4"},
        {"hash *", [&] { User("admin").updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &star, nullptr, &skip); }, "4"},
        // Without a main account, the next account created takes its uid: it is born enabled.
        {"created disabled",
         [&] { User::createUser("chief", "Chief#Pass2026", 1, false, false, &skip); }, "4", noMainAccount},
        {"another account's hash !!", [&] { User("guest").updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &disabled, nullptr, &skip); }, "ok"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        tvc::test::restoreSampleDevice();
        c.setUp();
        const std::string before = files();
        const std::string result = outcome(c.run);
        EXPECT_EQ(result, c.expected);
        if (result != "ok") {
            EXPECT_TRUE(files() == before) << "refused, but the files changed";
        }
    }
}

}  // namespace
