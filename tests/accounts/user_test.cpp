// The account object and the rights check on the sample device: state flags from crafted
// shadow entries and tally records, rights decided under real thread identities; the tally
// record read, and operations whose count reset did not happen.
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <tuple>

#include <authnz/AuthNZException.h>
#include <authnz/WebPam.h>
#include <usermanagement/ErrorCodes.h>
#include <usermanagement/Rbac.h>
#include <usermanagement/UMException.h>
#include <usermanagement/Utilities.h>

#include "files/FilesTestSupport.h"
#include "foundation/Descriptor.h"
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
using Tally = SandboxTest;  // the scratch files live in the sandbox's throw-away /etc
typedef AccountsTest TallyResetTest, RightsTest;
using utilities::getLockCount;

// "allowed", or the refusal as "code user".
std::string decision(UserDefinition::Action action, User* target) try {
    UserDefinition::GetUserDefinition().checkRight(action, target);
    return "allowed";
} catch (const authnz::AuthorizationException& e) {
    return std::to_string(e.getErrorId()) + " " + e.getUser();
}

// The record of `uid` in the tally file `path` as pam_tally2 lays it out: the failure count at
// byte 54, the time of the last failure behind it, `fill` in the other bytes.
void writeTally(const std::string& path, std::uint64_t uid, std::uint16_t count, std::uint64_t lastFailure = 0,
                unsigned char fill = 0) {
    const detail::Descriptor tally(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    unsigned char record[64];
    std::memset(record, fill, sizeof record);
    std::memcpy(record + 54, &count, sizeof count);
    std::memcpy(record + 56, &lastFailure, sizeof lastFailure);
    ASSERT_EQ(pwrite(tally.get(), record, sizeof record, static_cast<off_t>(uid * 64)), 64);
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
        writeTally("/etc/tvc-tallylog", 10002, tallyCount);
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

// The sample device's settings with the ageing policy and failed-login limit a case asks for.
struct AgeingDefinition : tvc::sample::SampleSettings {
    int maxAge = -1, minAge = -1, expirationDay = -1, lockLimit = 3;
    unsigned int getDBDelayWrongCredential() override { return 0; }
    void getDBLockCount(int& count) override { count = lockLimit; }
    void getDBPasswordExpirationAge(int& max, int& min, int& third, bool& exemptBaseUser) override {
        max = maxAge;
        min = minAge;
        third = expirationDay;
        exemptBaseUser = true;
    }
};
using CreatedAccountTest = DeviceTest<AgeingDefinition>;

// All a caller can read of an object: name, ids, profile with its roles, the four flags.
std::string readable(const User& user) {
    const UmProfile& profile = user.getProfile();
    std::string text = user.getUserName() + " uid " + std::to_string(user.getUid()) + " gid " +
                       std::to_string(user.getGid()) + " profile " + profile.getName() + " " +
                       std::to_string(profile.getId()) + " " + std::to_string(profile.getGid()) + " roles";
    for (const UmRole& role : profile.getRoles()) text += " " + role.getName();
    return text + " " + flags(user);
}

// The object createUser returns is filled in from what it wrote, not read back: it must read
// exactly as the account looked up afresh with its state read from the files.
TEST_F(CreatedAccountTest, TheCreatedObjectReadsAsTheAccountLookedUpAgain) {
    const long today = static_cast<long>(std::time(nullptr)) / 86400;
    const struct {
        const char* what;
        int profile;
        const char* password;
        bool encrypted, active, mustChange;
        int maxAge, minAge, expirationDay, lockLimit;
        const char* expected;  // the flags
    } cases[] = {
        {"a hash, enabled", 2, "$6$s$h", true, true, false, -1, -1, -1, 3, "A---"},
        {"a password to hash, must change", 1, "Good#Pass2026", false, true, true, -1, -1, -1, 3, "AP--"},
        {"disabled", 3, "$6$s$h", true, false, false, -1, -1, -1, 3, "----"},
        {"a hash carrying the disabled mark", 2, "!!$6$s$h", true, true, false, -1, -1, -1, 3, "----"},
        {"disabled without a hash", 2, "", true, false, false, -1, -1, -1, 3, "----"},
        {"ageing, must change", 2, "$6$s$h", true, true, true, 10, 1, -1, 3, "AP--"},
        {"ageing, changed today", 2, "$6$s$h", true, true, false, 0, 0, -1, 3, "A---"},
        {"expires today", 2, "$6$s$h", true, true, false, -1, -1, static_cast<int>(today), 3, "A---"},
        {"expired yesterday", 2, "$6$s$h", true, true, false, -1, -1, static_cast<int>(today - 1), 3, "A--E"},
        {"no limit", 2, "$6$s$h", true, true, false, -1, -1, -1, -1, "A---"},
        {"a limit of no failures", 2, "$6$s$h", true, true, false, -1, -1, -1, 0, "A-L-"},
    };
    const bool skip = true;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        restoreSampleDevice();
        unlink("/var/log/tallylog");
        definition.maxAge = c.maxAge;
        definition.minAge = c.minAge;
        definition.expirationDay = c.expirationDay;
        definition.lockLimit = c.lockLimit;
        const User created =
            User::createUser("tvcnew", c.password, c.encrypted, c.profile, c.active, c.mustChange, &skip);
        User fresh("tvcnew");
        fresh.updateState();
        EXPECT_EQ(readable(created), readable(fresh));
        EXPECT_TRUE(created == fresh);
        EXPECT_EQ(flags(created), c.expected);
    }
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
// the table below; an action the policy does not know is refused even to root.
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

TEST_F(Tally, CountIsReadFromTheRecordOfTheUidInARegularFileOnly) {
    const std::string file = "/etc/tvc-tallylog", fifo = "/etc/tvc-tally.fifo";
    unlink(file.c_str());
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Records at their place by uid, the rest a hole as pam_tally2 leaves it.  The neighbouring
    // fields are filled, so that a read at the wrong offset shows.
    for (const auto& [uid, count] :
         {std::pair<std::uint64_t, std::uint16_t>{0, 7}, {10001, 3}, {10002, 65535}, {67108864u, 9}, {67108865u, 5}})
        writeTally(file, uid, count, 0xA5A5A5A5A5A5A5A5u, 0xA5);
    ASSERT_EQ(truncate(file.c_str(), 67108865ll * 64 + 60), 0);  // the last count is there, its record is not whole
    const std::tuple<std::string, unsigned int, int> cases[] = {
        // uid 67108864 is at byte 2^32: a 32-bit offset would wrap to uid 0's record.
        {file, 0, 7},
        {file, 10001, 3},
        {file, 10002, 65535},
        {file, 67108864u, 9},
        {file, 10000, 0},        // a hole inside the file
        {file, 67108865u, 0},    // cut short
        {file, 4294967295u, 0},  // beyond the end
        {"/nonexistent/tallylog", 0, 0},
        {"/dev/urandom", 0, 0},  // a device that does hand out 64 bytes
    };
    for (const auto& [path, uid, count] : cases) EXPECT_EQ(getLockCount(uid, path), count) << path << " " << uid;
    // Without a writer, a blocking open would never return: in a fresh process, SIGALRM ends it.
    EXPECT_EXIT((alarm(3), _exit(getLockCount(0, fifo))), testing::ExitedWithCode(0), "");
}

// A tally tool that fails, or succeeds without resetting the count, fails the operation that
// needed the reset: nothing is written and no "unlocked" event claims what did not happen.
TEST_F(TallyResetTest, AResetThatDidNotHappenFailsTheOperationAndLogsNoUnlock) {
    const std::string tool = "/etc/tvc-pam/bin/pam_tally2", real = tool + ".real";
    ASSERT_EQ(rename(tool.c_str(), real.c_str()), 0);
    struct PutBack {
        std::string tool, real;
        ~PutBack() { rename(real.c_str(), tool.c_str()); }
    } putBack{tool, real};
    const struct {
        const char* body;
        const char* reason;
    } tools[] = {
        {"exit 1", "the command exited with 1 (uid 10004)"},
        {"exit 0", "the count is not 0 after the command (uid 10004)"},
    };
    const bool yes = true;
    User guest("guest");
    const std::function<void()> operations[] = {
        [&] { guest.unLock(); },
        [&] { guest.updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr); },
        [&] { guest.updateAnyUserPassword("guest", "Reset#Guest2026", false, "", false); },
    };
    for (const auto& t : tools) {
        writeFile(tool, std::string("#!/bin/sh\n") + t.body + "\n");
        ASSERT_EQ(chmod(tool.c_str(), 0755), 0);
        for (const auto& operation : operations) {
            SCOPED_TRACE(t.body);
            writeTally("/var/log/tallylog", 10004, 3);
            const Snapshot before({"/etc/passwd", "/etc/shadow"}, {});
            EXPECT_EQ(expectFailure(operation, typeid(UMSystemErrorException), UMSystemError::TallyReset,
                                    "unLock error, the failed-login count was not reset"),
                      t.reason);
            EXPECT_EQ(getLockCount(10004, "/var/log/tallylog"), 3);
            before.expectUnchanged();
            EXPECT_EQ(takeEvents(), "");
        }
    }
    // A failure counted after the reset started is a new one, not a reset that failed: a login
    // tried meanwhile must not make a manager's operation fail.
    writeTally("/var/log/tallylog", 10004, 3, static_cast<std::uint64_t>(time(nullptr)) + 1);
    EXPECT_EQ(outcome([&] { guest.unLock(); }), "ok");
}

// Creating and removing an account reset its uid's failed-login record, but the tool (a
// process of its own) runs only when the record may count something: a record that cannot be
// read is reset too, and a reset that fails still refuses the creation with nothing written.
TEST_F(TallyResetTest, CreationAndRemovalRunTheToolUnlessNothingIsCounted) {
    const std::string tally = "/var/log/tallylog", reset = "pam_tally2 [-f] [/var/log/tallylog] [-r] [-u] [tvcnew]\n";
    const struct {
        const char* what;
        std::function<void()> plant;
        std::string created, commands;  // creation's outcome; the commands of creation and removal
    } rows[] = {
        {"no tally file", [&] {}, "ok", ""},
        {"a hole where the record goes", [&] { writeTally(tally, 10009, 2); }, "ok", ""},
        {"a count left by the uid's last holder", [&] { writeTally(tally, 10005, 3); }, "ok", reset},
        {"a record cut short",
         [&] {
             writeTally(tally, 10005, 3);
             ASSERT_EQ(truncate(tally.c_str(), 10005 * 64 + 40), 0);
         },
         "ok", reset},
        {"a directory at the tally path", [&] { ASSERT_EQ(mkdir(tally.c_str(), 0700), 0); }, "47", reset},
    };
    const bool skip = true;
    const auto create = [&] { User::createUserWithEncryptedPassword("tvcnew", "$6$salt$hash", 2, true, false, &skip); };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        unlink(tally.c_str());
        rmdir(tally.c_str());
        row.plant();
        takeCommands();
        const Snapshot before({"/etc/passwd", "/etc/shadow", "/etc/group"}, {});
        EXPECT_EQ(outcomeCode(create), row.created);
        if (row.created == "ok") {
            EXPECT_EQ(getLockCount(10005, tally), 0);
            EXPECT_EQ(outcome([] { User("tvcnew").removeUser(); }), "ok");
        }
        before.expectUnchanged();
        EXPECT_EQ(takeCommands(), row.commands);
    }
    rmdir(tally.c_str());
}

constexpr auto code = outcomeCode;

// The tally tool finds the account by name through the name service, which a cache daemon may
// answer from before the files changed.  Here the library's files say guest is 10004 while the
// name service says 10003, tech's uid: the reset is refused rather than clearing tech's count.
TEST_F(TallyResetTest, NoResetWhenTheNameServiceGivesAnotherAccountForTheName) {
    struct OwnFiles : QuickDefinition {
        const char* getPasswordFilePath() override { return "/etc/tvc-passwd"; }
        const char* getShadowFilePath() override { return "/etc/tvc-shadow"; }
    } own;
    writeFile("/etc/tvc-passwd", readFile("/etc/passwd"));
    writeFile("/etc/tvc-shadow", readFile("/etc/shadow"));
    std::string passwd = readFile("/etc/passwd");
    for (const auto& [from, to] : {std::pair<std::string, std::string>{"guest:x:10004:", "guest:x:10003:"},
                                   {"tech:x:10003:", "tech:x:10004:"}}) {
        ASSERT_NE(passwd.find(from), std::string::npos) << from;
        passwd.replace(passwd.find(from), from.size(), to);
    }
    writeFile("/etc/passwd", passwd);
    own.setUserDefinition(own);
    writeTally("/var/log/tallylog", 10003, 3);
    takeCommands();
    const bool yes = true;
    for (const std::function<void(User&)>& operation : std::vector<std::function<void(User&)>>{
             [](User& guest) { guest.unLock(); },
             [&](User& guest) { guest.updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr); }}) {
        for (User& guest : utilities::getUserList()) {
            if (guest.getUserName() != "guest") continue;
            ASSERT_EQ(guest.getUid(), 10004u);
            EXPECT_EQ(code([&] { operation(guest); }), "41");
        }
    }
    EXPECT_EQ(getLockCount(10003, "/var/log/tallylog"), 3);
    EXPECT_EQ(takeCommands(), "");
    restoreSampleDevice();
}



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
    // A wrong current password, whatever the caller may read: the failed login reads nothing.
    if (op == Holder) return "18";
    if (op == Remove && object == 10000) return "3";
    if (op == Remove && object == callerUid) return "8";
    if (op == Disable && object == 10000) return "4";
    return (op == ResetOnOwnObject ? callerStale : stale) ? "41" : "ok";
}

// Rights that hold against every caller: each sample account, acting through the library's own
// switch as a web request would, tries every operation that changes or reveals an account on
// every kind of target: itself, another managed account, the main account, root, the web
// server's and a service account, a stale object and one renamed with setUserName.  After every
// refusal the account files are byte for byte as before, no event was logged, no command ran.
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

// A sink that makes one call of its own from inside the first account event it is handed: a
// host reacting to an event while the operation that logs it still runs (as root, for a reset).
struct ReactingSink : RecordingLogger {
    std::function<void()> react;
    void logMessage(LogCategory category, int messageId, int third, const LogSeverity& severity, std::string ip,
                    int sixth, std::string text) override {
        RecordingLogger::logMessage(category, messageId, third, severity, ip, sixth, text);
        if (category == LogCategory::UserAccount && react) std::exchange(react, nullptr)();
    }
};

// Rights are decided on the caller the operation started with, never on the identity the
// thread has when a question comes: inside the library's own root scope that is root.  A host's
// sink answers the "password reset" event of an account's own reset, which is logged while the
// reset runs as root, with a public call: it is judged on the account the thread acts as,
// refused without the right, 305 for root's account even to a manager.  The self-account role
// still may reset its own password, and no other account's.  An allowed call gets as far as the
// password-file lock, which the reset around it holds (11).
TEST_F(RightsTest, CallsFromInsideTheLibrarysRootScopeAreJudgedOnTheCaller) {
    const std::string password = "Other#Pass2026";
    const auto reset = [&](const char* name) {
        return [&, name](User& own) { own.updateAnyUserPassword(name, password, false, "", false); };
    };
    const struct {
        const char *caller, *call;
        std::function<void(User& own)> body;
        const char* want;
    } rows[] = {
        {"viewer", "unlock guest", [](User&) { User("guest").unLock(); }, "302"},
        {"viewer", "reset guest", reset("guest"), "302"},
        {"viewer", "reset own", reset("viewer"), "11"},
        {"admin", "unlock guest", [](User&) { User("guest").unLock(); }, "11"},
        {"admin", "reset root", reset("root"), "305"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.caller) + " " + row.call);
        restoreSampleDevice();
        unlink("/var/log/tallylog");
        User own(row.caller);
        std::string result = "not called";
        ReactingSink reacting;
        reacting.react = [&] { result = code([&] { row.body(own); }); };
        as(row.caller, [&] { EXPECT_EQ(code([&] { reset(row.caller)(own); }), "ok"); });
        EXPECT_EQ(result, row.want);
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
