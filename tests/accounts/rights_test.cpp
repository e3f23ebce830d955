// Rights that hold against every caller.  Each sample account, acting through the library's own
// switch as a web request would, tries every operation that changes or reveals an account on
// every kind of target: itself, another managed account, the main account, root, the web
// server's and a service account, a stale object and one renamed with setUserName.  After every
// refusal the account files are byte for byte as before, no event was logged, no command ran.
#include <memory>

#include <authnz/WebPam.h>

#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

constexpr auto code = outcomeCode;
using RightsTest = AccountsTest;

std::string files() {
    return readFile("/etc/passwd") + readFile("/etc/shadow") + readFile("/etc/group") + readFile(kCommandLog);
}

// The callers: name, holds the user-manager role, holds the role that changes its own password.
const struct Caller {
    const char* name;
    bool manager, self;
} kCallers[] = {{"root", false, false},     {"admin", true, true},        {"operator", false, true},
                {"viewer", false, true},    {"tech", false, true},        {"guest", false, true},
                {"www-data", false, false}, {"svc-backup", false, false}, {"plainuser", false, true}};

// The targets, by the account their object is looked up as.  Stale: viewer's, kept while a
// manager renamed viewer to viewer-old and tech to viewer; renamed: tech's after
// setUserName("plainuser"); demoted: tech's, kept while a manager moved tech to viewers.
enum Target { Self, Other, Main, Root, WebServer, Service, Stale, Renamed, Demoted, kTargets };
const char* const kTargetNames[] = {"self", "other", "admin", "root", "www-data", "svc-web", "viewer", "tech", "tech"};

enum Op {
    Create, Lookup, Rename, Profile, Disable, Enable, Password, ResetOnOwnObject, Reset, Unlock, Remove, ReadHash,
    Holder, kOps
};
const char* const kOpNames[] = {"create", "lookup", "rename", "profile", "disable", "enable", "password",
                                "reset-own", "reset", "unlock", "remove", "hash", "holder"};

// What an operation must answer.  `object`: the target object's uid; `written`: the uid of the
// account written (for a reset: the one its name names now); `stale`: the object no longer
// names its account; `callerStale`: nor does the caller's own (a reset on it names it).
std::string expected(const Caller& c, Op op, unsigned int callerUid, unsigned int object, unsigned int written,
                     bool stale, bool callerStale) {
    const bool root = callerUid == 0, all = root || c.manager;
    const auto ownPassword = [&](unsigned int uid) { return all || (c.self && uid == callerUid); };
    const bool lookup = all || c.self || std::string(c.name) == "www-data";
    const bool allowed = op == Holder             ? true  // the current password is the right
                         : op == Lookup           ? lookup
                         : op == ReadHash || op == Create ? all
                         : op == Password         ? ownPassword(object)
                         : op == ResetOnOwnObject ? (c.self || all) && ownPassword(written)
                         : op == Reset            ? ownPassword(object) && ownPassword(written)
                                                  : all;
    if (!allowed) return "302";
    if (op == ReadHash || op == Lookup || op == Create) return "ok";
    if ((written < 10000 || written >= 10010) && !root) return "305";
    // A wrong current password; the failed login looks the account up with the caller's rights.
    if (op == Holder) return lookup ? "18" : "302";
    if (op == Remove && object == 10000) return "3";
    if (op == Remove && object == callerUid) return "8";
    if (op == Disable && object == 10000) return "4";
    return (op == ResetOnOwnObject ? callerStale : stale) ? "41" : "ok";
}

TEST_F(RightsTest, EveryCallerEveryOperationEveryTarget) {
    const std::string newName = "renamed", password = "Other#Pass2026", oldName = "viewer-old", viewer = "viewer";
    const int viewers = 2;
    const bool no = false, yes = true;
    for (const Caller& c : kCallers)
        for (int target = 0; target < kTargets; ++target) {
            SCOPED_TRACE(std::string(c.name) + " on " + kTargetNames[target]);
            std::string got, want;
            for (int op = 0; op < kOps; ++op) {
                restoreSampleDevice();
                unlink("/var/log/tallylog");
                // The caller's object and its groups are read before any rename.
                const bool root = std::string(c.name) == "root";
                User own(root ? "root" : c.name);
                int count = 0;
                ASSERT_NE(own.getUserGroupsIds(count), nullptr);
                const std::string other = std::string(c.name) == "guest" ? "tech" : "guest";
                User object(target == Self ? c.name : target == Other ? other : kTargetNames[target]);
                if (target == Stale) {
                    User("viewer").updateUser(&oldName, nullptr, nullptr, nullptr, nullptr, nullptr);
                    User("tech").updateUser(&viewer, nullptr, nullptr, nullptr, nullptr, nullptr);
                }
                if (target == Renamed) object.setUserName("plainuser");
                if (target == Demoted) User("tech").updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr);
                const std::string name = object.getUserName();
                const bool byName = op == ResetOnOwnObject || op == Reset || op == Holder;
                const unsigned int written = byName ? User(name).getUid() : object.getUid();
                want += std::string(" ") + kOpNames[op] + "=" +
                        expected(c, Op(op), own.getUid(), object.getUid(), written,
                                 target == Stale || target == Renamed || target == Demoted,
                                 own.getUid() == 10003 ? target == Stale || target == Demoted
                                                       : target == Stale && own.getUid() == 10002);
                takeEvents();
                const std::string before = files();
                const std::function<void()> calls[] = {
                    [&] { User::createUser("extra", password, viewers, true, false, nullptr); },
                    [&] { User lookedUp(name); },
                    [&] { object.updateUser(&newName, nullptr, nullptr, nullptr, nullptr, nullptr); },
                    [&] { object.updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr); },
                    [&] { object.updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr); },
                    [&] { object.updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr); },
                    [&] { object.updateUser(nullptr, nullptr, nullptr, &password, nullptr, nullptr); },
                    [&] { own.updateAnyUserPassword(name, password, false, "", false); },
                    [&] { object.updateAnyUserPassword(name, password, false, "", false); },
                    [&] { object.unLock(); },
                    [&] { object.removeUser(); },
                    [&] { (void)object.getEncryptedPassword(); },
                    [&] {
                        std::string wrong = "Wrong#Guess26", next = password;
                        object.updatePassword(wrong, next, "");
                    },
                };
                std::string result;
                actingAs(root ? nullptr : &own, [&] { result = code(calls[op]); });
                got += std::string(" ") + kOpNames[op] + "=" + result;
                if (result != "ok") {
                    EXPECT_TRUE(files() == before) << kOpNames[op] << " refused, but the files changed";
                    EXPECT_EQ(takeEvents(), "") << kOpNames[op];
                }
            }
            EXPECT_EQ(got, want);
        }
}

// Guessing through the holder's password change is counted like guessing at the login: the
// third wrong current password locks the account (one "locked" event), a locked account cannot
// change its password even with the right one, and after a manager's unlock it can.  The unlock
// logs its event only when the account was locked, and runs the tally reset either way.
TEST_F(RightsTest, WrongCurrentPasswordsInAPasswordChangeLockTheAccount) {
    for (const bool byName : {false, true}) {
        SCOPED_TRACE(byName ? "by name" : "on the holder's object");
        restoreSampleDevice();
        unlink("/var/log/tallylog");
        takeEvents();
        const std::string shadow = readFile("/etc/shadow");
        const auto change = [&](std::string old, std::string fresh = "Fresh#Pass2026x") {
            return code([&] { byName ? User::updateAnyUserPassword("admin", old, fresh, "")
                                     : User("admin").updatePassword(old, fresh, ""); });
        };
        std::string answers;
        as("viewer", [&] {
            for (const char* old : {"Guess#1", "Guess#2", "Guess#3", "Guess#4", "Admin#2026"})
                answers += change(old) + " ";
        });
        EXPECT_EQ(answers, "18 18 18 18 18 ");
        EXPECT_EQ(takeEvents(), "9 User account - locked <admin>\n");
        EXPECT_EQ(readFile("/etc/shadow"), shadow);
        User admin("admin");
        for (const char* event : {"10 User account - unlocked <admin>\n", ""}) {
            writeFile(kCommandLog, "");
            as("admin", [&] { admin.unLock(); });
            EXPECT_EQ(takeEvents(), event);
            EXPECT_EQ(readFile(kCommandLog), "pam_tally2 [-f] [/var/log/tallylog] [-r] [-u] [admin]\n");
        }
        as("viewer", [&] { EXPECT_EQ(change("Admin#2026"), "ok"); });
        EXPECT_NE(readFile("/etc/shadow"), shadow);
        // The right password reset the count, as a login does.
        const std::shared_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM("admin", "", authnz::WebPam::WebLogin));
        EXPECT_EQ(code([&] { pam->pamAuthentication("Fresh#Pass2026x"); }), "ok");
    }
}

// The main account stays enabled whichever path writes its shadow field.
TEST_F(RightsTest, NoPathDisablesTheMainAccount) {
    const bool skip = true;
    const auto store = [&](const char* name, std::string h) {
        return code([&] { User(name).updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &h, nullptr, &skip); });
    };
    std::string before = files();
    EXPECT_EQ(store("admin", "!!$6$tvc$x") + " " + store("admin", "!$6$tvc$x") + " " + store("admin", "*"), "4 4 4");
    EXPECT_TRUE(files() == before);
    EXPECT_EQ(store("guest", "!!$6$tvc$x"), "ok");
    // Without a main account, the next account created takes its uid: it is born enabled.
    removeEntry("/etc/passwd", "admin");
    removeEntry("/etc/shadow", "admin");
    before = files();
    EXPECT_EQ(code([&] { User::createUser("chief", "Chief#Pass2026", 1, false, false, &skip); }), "4");
    EXPECT_TRUE(files() == before);
}

}  // namespace
