// The account life cycle, its effect on the group files, the password operations and what is
// refused (files not as they must be before a change, names, requests the files cannot hold)
// on the sample device: the real account files, the sandbox's PAM stack and tally, and the
// commands the library runs as root, which the sandbox records in /var/log/tvc-commands.log.
#include <crypt.h>
#include <grp.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <sstream>
#include <vector>

#include <authnz/WebPam.h>
#include <usermanagement/Utilities.h>

#include "files/FilesTestSupport.h"
#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

typedef AccountsTest LifeCycleTest, MembersTest, ChecksTest;

bool hashIs(const std::string& name, const std::string& password) {
    std::string hash = fields(lineOf("/etc/shadow", name)).at(1);
    if (hash.rfind("!!", 0) == 0) hash.erase(0, 2);
    const char* computed = crypt(password.c_str(), hash.c_str());
    return computed != nullptr && hash == computed;
}

std::string today() { return std::to_string(std::time(nullptr) / 86400); }

const std::string kReload = "sudo [/etc/init.d/S46unscd] [reload]\nS46unscd [reload]\n";
std::string tallyReset(const std::string& name) {
    return "pam_tally2 [-f] [/var/log/tallylog] [-r] [-u] [" + name + "]\n";
}

// One account from creation to removal: after each step the files, the events in order and
// the commands that ran.  Removed, it leaves the group file as it found it.
TEST_F(LifeCycleTest, OneAccountThroughItsLife) {
    const std::string group = readFile("/etc/group");
    std::unique_ptr<User> user;
    const std::string rookie = "rookie", first = "Newbie#2026x", second = "Fresh#Pass2026", day = today();
    const int operators = 1;
    const bool no = false, yes = true;
    const std::string line = ":x:10005:10002:UI User:/home/admin:/bin/sh",
                      moved = ":x:10005:10001:UI User:/home/admin:/bin/sh";
    const struct {
        const char* step;
        std::function<void()> run;
        std::string passwd;  // the account's passwd line afterwards
        std::string shadow;  // its hash prefix, password and last-change day
        std::string events;
        std::string commands;
    } steps[] = {
        {"create", [&] { user = std::make_unique<User>(User::createUser("newbie", first, 2, true, false, nullptr)); },
         "newbie" + line, "$6$ " + first + " " + day, "1 User account - created <newbie>\n", ""},
        // Both in one call: the events in the order of the fields, the cache reloaded once.
        {"rename+profile", [&] { user->updateUser(&rookie, &operators, nullptr, nullptr, nullptr, nullptr); },
         "rookie" + moved, "$6$ " + first + " " + day,
         "4 User account - name changed from <newbie> to <rookie>\n"
         "5 User account - profile of <rookie> changed from <viewers> to <operators>\n",
         kReload},
        {"password", [&] { user->updateUser(nullptr, nullptr, nullptr, &second, &yes, nullptr); }, "rookie" + moved,
         "$6$ " + second + " 0", "8 User account - password reset <rookie>\n", tallyReset("rookie")},
        {"disable", [&] { user->updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr); }, "rookie" + moved,
         "!!$6$ " + second + " 0", "12 User account - deactivated <rookie>\n", ""},
        {"enable", [&] { user->updateUser(nullptr, nullptr, &yes, nullptr, nullptr, nullptr); }, "rookie" + moved,
         "$6$ " + second + " 0", "11 User account - activated <rookie>\n", tallyReset("rookie")},
        {"remove", [&] { user->removeUser(); }, "", "", "2 User account - deleted <rookie>\n", ""},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.step);
        ASSERT_EQ(outcome(s.run), "ok");
        EXPECT_EQ(lineOf("/etc/passwd", user->getUserName()), s.passwd);
        std::string shadow;
        if (!s.passwd.empty()) {
            const auto stored = fields(lineOf("/etc/shadow", user->getUserName()));
            const std::string password =
                s.shadow.substr(s.shadow.find(' ') + 1, s.shadow.rfind(' ') - s.shadow.find(' ') - 1);
            shadow = stored.at(1).substr(0, stored.at(1)[0] == '!' ? 5 : 3) + " " +
                     (hashIs(user->getUserName(), password) ? password : "?") + " " + stored.at(2);
        }
        EXPECT_EQ(shadow, s.shadow);
        EXPECT_EQ(takeEvents(), s.events);
        EXPECT_EQ(takeCommands(), s.commands);
    }
    EXPECT_EQ(lineOf("/etc/shadow", "rookie") + lineOf("/etc/shadow", "newbie"), "");
    EXPECT_EQ(readFile("/etc/group"), group);
}

// The groups whose list (field `field` of `path`) names `name`, each followed by a blank.
std::string listing(const std::string& path, std::size_t field, const std::string& name) {
    std::string found;
    for (const std::string& line : lines(path)) {
        std::istringstream list(fields(line).at(field));
        for (std::string member; std::getline(list, member, ',');)
            if (member == name) found += fields(line)[0] + " ";
    }
    return found;
}

// Another tool's leftover: `name` added to the list `field` of `group` in `path`.
void plant(const std::string& path, const std::string& group, std::size_t field, const std::string& name) {
    std::string text;
    for (const std::string& line : lines(path)) {
        std::vector<std::string> f = fields(line);
        if (f[0] == group) f.at(field) += (f[field].empty() ? "" : ",") + name;
        for (std::size_t i = 0; i < f.size(); ++i) text += (i ? ":" : "") + f[i];
        text += "\n";
    }
    writeFile(path, text);
}

std::string login(const std::string& name, const std::string& password) {
    std::shared_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM(name, "", authnz::WebPam::WebLogin));
    return outcome([&] { pam->pamAuthentication(password.c_str()); });
}

// getgrouplist's answer for `name`, sorted, and the failed-login count of its uid.
std::string groupsAndTally(const std::string& name) {
    const auto account = fields(lineOf("/etc/passwd", name));
    const unsigned int uid = std::stoul(account.at(2));
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    getgrouplist(name.c_str(), std::stoul(account.at(3)), groups.data(), &count);
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    std::sort(groups.begin(), groups.end());
    std::string text = "uid " + std::to_string(uid) + " groups";
    for (gid_t gid : groups) text += " " + std::to_string(gid);
    return text + " tally " + std::to_string(usermanagement::utilities::getLockCount(uid, "/var/log/tallylog"));
}

// An account's successor, renamed or moved account holds what its profile grants and no more:
// the groups getgrouplist reports, its name alike in the group and group shadow lists and in no
// administrator list, the old name nowhere, no failed login counted, its password logging in.
// Predecessors are locked by failed logins first and leave stale entries of the new name.
TEST_F(LifeCycleTest, SuccessorsRenamedAndMovedAccountsHoldWhatTheirProfileGrants) {
    const std::string fresh = "Fresh#Start2026";
    // The predecessor is removed by the library, or by another tool that leaves its tally
    // record and member lists behind.
    const auto recreate = [&](const std::string& old, bool byTool, const std::string& name, int profile) {
        return [=] {
            for (int i = 0; i < 3; ++i) EXPECT_NE(login(old, "Wrong#2026"), "ok");
            const std::string uid = fields(lineOf("/etc/passwd", old)).at(2);
            if (byTool) {
                removeEntry("/etc/passwd", old);
                removeEntry("/etc/shadow", old);
            } else {
                User(old).removeUser();
                EXPECT_EQ(usermanagement::utilities::getLockCount(std::stoul(uid), "/var/log/tallylog"), 0);
                EXPECT_EQ(listing("/etc/group", 3, old) + listing("/etc/gshadow", 3, old), "");
            }
            plant("/etc/group", "net-admin", 3, name);
            plant("/etc/gshadow", "role-user-manager", 2, name);
            User::createUser(name, fresh, profile, true, false, nullptr);
        };
    };
    const std::string watcher = "watcher";
    const int viewers = 2;
    const struct {
        const char* what;
        std::function<void()> run;
        std::string name, gone, password, expected;
    } rows[] = {
        {"operator again, as a viewer", recreate("operator", false, "operator", 2), "operator", "", fresh,
         "uid 10001 groups 4102 4104 4201 10002 tally 0"},
        {"tech's uid for an operator, tech removed by another tool", recreate("tech", true, "rookie", 1), "rookie", "",
         fresh, "uid 10003 groups 4102 4103 4104 4200 4201 10001 tally 0"},
        {"renamed", [&] { User("viewer").updateUser(&watcher, nullptr, nullptr, nullptr, nullptr, nullptr); },
         "watcher", "viewer", "Viewer#2026", "uid 10002 groups 4102 4104 4201 10002 tally 0"},
        {"demoted: the catalogue's groups follow, users is left alone",
         [&] {
             for (const char* path : {"/etc/group", "/etc/gshadow"}) {
                 plant(path, "users", 3, "operator");
                 plant(path, "role-user-manager", 3, "operator");
             }
             User("operator").updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr);
         },
         "operator", "", "Operator#2026", "uid 10001 groups 100 4102 4104 4201 10002 tally 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        restoreSampleDevice();
        unlink("/var/log/tallylog");
        ASSERT_EQ(outcome(row.run), "ok");
        EXPECT_EQ(groupsAndTally(row.name), row.expected);
        EXPECT_EQ(listing("/etc/gshadow", 3, row.name), listing("/etc/group", 3, row.name));
        EXPECT_EQ(listing("/etc/gshadow", 2, row.name) + listing("/etc/group", 3, row.gone) +
                      listing("/etc/gshadow", 3, row.gone),
                  "");
        User account(row.name);
        account.updateState();
        EXPECT_TRUE(account.isActive() && !account.isLocked() && !account.isPasswordExpired());
        EXPECT_EQ(login(row.name, row.password), "ok");
    }
}

// What an account change does to the group files beyond the account's own memberships: lines
// it has no business with stay byte for byte, an administrator seat follows the membership,
// and a member list never grows past what the files' reader accepts.
TEST_F(MembersTest, ChangesLeaveOtherLinesAndSeatsAsTheyMayBe) {
    const bool skip = true;
    // Lines the C library's writer would change: NIS references lose their gid, numbers their zeros.
    const std::string odd = "+nisgrp:x:4321:\n-other:x:77:\nzeros:x:0010: a ,b\n";
    addLines("/etc/group", odd);
    std::string gshadow = readFile("/etc/gshadow");
    gshadow.replace(gshadow.find("net-admin:!::"), 13, "net-admin:!:admin,operator:");
    writeFile("/etc/gshadow", gshadow);
    ASSERT_EQ(outcome([&] { User::createUserWithEncryptedPassword("probe", "$6$s$h", 2, true, false, &skip); }), "ok");
    EXPECT_NE(readFile("/etc/group").find(odd), std::string::npos);

    // Demoted to viewers, operator keeps no seat from which to let itself back into net-admin.
    const int viewers = 2;
    ASSERT_EQ(outcome([&] { User("operator").updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr); }),
              "ok");
    EXPECT_EQ(lineOf("/etc/gshadow", "net-admin"), "net-admin:!:admin:admin");

    // A list one rename short of the reader's 1 MiB limit: the rename is refused, nothing moves.
    std::string big = "bigteam:x:5000:probe,y";
    big.resize((1u << 20) - 8, 'y');
    addLines("/etc/group", big + "\n");
    const std::string before = readFile("/etc/group"), longer = "probe_renamed_to_a_longer_name";
    EXPECT_EQ(outcome([&] { User("probe").updateUser(&longer, nullptr, nullptr, nullptr, nullptr, nullptr); }),
              "10 updateMembersInGroupFile error, the member list of group bigteam would be longer than 1048576 "
              "bytes; the file is not rewritten");
    EXPECT_TRUE(readFile("/etc/group") == before);

    // An account another tool named outside the name rules can still be removed.
    addLines("/etc/passwd", "a b:x:10008:10002::/:/bin/sh\n");
    addLines("/etc/shadow", "a b:!!:20454:0:99999:7:::\n");
    EXPECT_EQ(outcome([] { User("a b").removeUser(); }), "ok");
}

TEST_F(LifeCycleTest, PasswordsChangedByTheHolderResetByAManagerAndChecked) {
    User viewer("viewer"), guest("guest");
    std::string old = "Viewer#2026", fresh = "Changed#Pass26x", wrong = "Nope#2026xx";
    as("viewer", [&] {
        EXPECT_EQ(outcome([&] { viewer.updatePassword(wrong, fresh, "192.0.2.7"); }).substr(0, 3), "18 ");
        EXPECT_EQ(outcome([&] { viewer.updatePassword(old, fresh, "192.0.2.7"); }), "ok");
        // A right password counts as a login that succeeded: it never locks the account.
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(User::checkCurrentUserPasswd(fresh));
        EXPECT_FALSE(User::checkCurrentUserPasswd(old));
    });
    EXPECT_TRUE(hashIs("viewer", fresh));
    // The failed check logged itself; the change logged its event without a name.
    ASSERT_FALSE(sink.messages.empty());
    EXPECT_EQ(takeEvents(), "6 User account - password changed\n");
    EXPECT_EQ(outcome([] { User::checkCurrentUserPasswd("Root#2026"); }).substr(0, 2), "0 ") << "root is refused";

    // A manager's reset of guest, called on guest's object: the hash, must change, the unlock.
    for (int i = 0; i < 3; ++i) EXPECT_NE(login("guest", "Wrong#2026"), "ok");  // three failed logins lock guest
    takeEvents();
    EXPECT_EQ(outcome([&] { guest.updateAnyUserPassword("guest", "Reset#Guest2026", true, "", true); }), "ok");
    EXPECT_TRUE(hashIs("guest", "Reset#Guest2026"));
    EXPECT_EQ(fields(lineOf("/etc/shadow", "guest")).at(2), "0");
    EXPECT_EQ(takeEvents(), "10 User account - unlocked <guest>\n8 User account - password reset <guest>\n");
    EXPECT_EQ(takeCommands(), tallyReset("guest"));
    // The rules judge the candidate; a password change never reloads the name cache.
    EXPECT_EQ(outcome([&] { guest.checkPasswordStrenght("abc"); }).substr(0, 3), "33 ");
    EXPECT_EQ(outcome([&] { guest.checkPasswordStrenght("Long#Enough2026"); }), "ok");
    EXPECT_EQ(takeCommands(), "");
}

// Names the name check accepts reach the unlock command as one literal argument: the recorded
// command line shows them as created, nothing they spell out ran (an expansion would show).
TEST_F(LifeCycleTest, HostileNamesReachTheUnlockCommandLiterally) {
    const bool skip = true;
    for (const std::string name : {"q\"uote", "d$(echo${IFS}x)", "b`echo`x", "s;true", "bs\\\"x", "v$HOME", "q'"}) {
        SCOPED_TRACE(name);
        User user = User::createUserWithEncryptedPassword(name, "$6$salt$hash", 2, true, false, &skip);
        user.unLock();
        user.removeUser();
        EXPECT_EQ(takeCommands(), tallyReset(name));  // no failures counted: only the unlock runs the tool
    }
}

// "ok", or "<code> <message> | <description>".
std::string refusal(const std::function<void()>& call) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId()) + " " + e.what() + " | " + e.getErrorDescription();
}

const std::string kTwinUid = "twin:x:10002:10002::/:/bin/sh\n", kTwinName = "viewer:x:10007:10002::/:/bin/sh\n";
const std::string kTwinShadow = "viewer:$6$x:20454:0:99999:7:::\n";

// Refused before anything is written, files, events and commands left as they were: an account
// stored twice or half, an entry behind a line too long to read, what the rules and the files
// cannot take (with the entry functions' own errors), and the operations' own checks in order.
TEST_F(ChecksTest, RefusedRequestsLeaveTheFilesAlone) {
    const bool no = false, skip = true;
    const std::string name = "renamed", fresh = "Fresh#Pass2026", longHash = "$6$" + std::string(510, 'h');
    const std::string newName = "new\nline", nul("Good#Pass\0word", 14), colonHash = "$6$a:b";
    using Change = std::function<void(User&)>;  // on viewer's object
    const Change rename = [&](User& u) { u.updateUser(&name, nullptr, nullptr, nullptr, nullptr, nullptr); };
    const Change disable = [&](User& u) { u.updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr); };
    const Change reset = [&](User& u) { u.updateAnyUserPassword("viewer", fresh, false, "", false); };
    const Change remove = [](User& u) { u.removeUser(); }, unlock = [](User& u) { u.unLock(); };
    const auto create = [&](std::string account, std::string password, bool rules = false, int profile = 2) {
        return
            [=, &skip](User&) { User::createUser(account, password, profile, true, false, rules ? nullptr : &skip); };
    };
    const auto store = [&](std::string hash) {
        return [=](User&) { User::createUserWithEncryptedPassword("fine", hash, 2, true, false, &skip); };
    };
    const std::string twice = "43 viewer :The account (uid 10002) is stored more than once: ";
    const std::string half = "44 viewer :The account (uid 10002) is in ";
    const std::string nulByte = "1 cryptPwd error, the password holds a NUL byte |", huge(17u << 20, 'h');
    const struct {
        const char* file;  // where `line` goes, or the file whose viewer entry goes when `line` is empty
        std::string line;
        Change change;
        std::string expected;  // the start of the refusal
        bool inFront = false;  // `line` goes in front of the file's lines
    } cases[] = {
        {"/etc/passwd", kTwinUid, rename, twice + "2 entries of its uid and 1 of its name"},
        {"/etc/passwd", kTwinUid, remove, twice},
        {"/etc/passwd", kTwinName, remove, twice + "1 entries of its uid and 2 of its name"},
        {"/etc/passwd", kTwinName, reset, twice},
        {"/etc/shadow", kTwinShadow, unlock, twice + "1 entries of its uid and 1 of its name in /etc/passwd, 2"},
        {"/etc/shadow", kTwinShadow, disable, twice},
        {"/etc/shadow", "", reset, half + "/etc/passwd but not in /etc/shadow; add the missing entry"},
        {"/etc/shadow", "", remove, half + "/etc/passwd but not"},
        {"/etc/shadow", "", unlock, half + "/etc/passwd but not"},
        {"/etc/passwd", "", rename, half + "/etc/shadow but not in /etc/passwd"},
        {"/etc/passwd", "", remove, half + "/etc/shadow but not"},
        {"/etc/passwd", "", unlock, half + "/etc/shadow but not"},
        {"/etc/passwd", "", disable, half + "/etc/shadow but not"},
        {"/etc/shadow", "\n",  // a blank line changes nothing
         [&](User& u) { u.updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &longHash, nullptr, nullptr); },
         "1 updateEntryInShadowFile error, the stored password is longer than 512 bytes"},
        // Longer than the largest lookup buffer: the lookup failed (12), viewer is not "not found"
        // (5), its password not empty.
        {"/etc/passwd", "huge:x:3000:100:" + huge + ":/:/bin/sh\n", [](User&) { User("viewer"); }, "12 ", true},
        {"/etc/shadow", "huge:" + huge + ":20454::::::\n", [](User&) { User("viewer").updateState(); }, "12 ", true},
        {"/etc/shadow", "huge:" + huge + ":20454::::::\n", [](User&) { User("viewer").getEncryptedPassword(); }, "12 ",
         true},
        // On the sample device as it is.  The names' reasons: the next test.
        {nullptr, "", create("a:b", "Good#Pass2026"), "7 addEntryInPasswordFile error, bad user name |"},
        {nullptr, "", create("fine", nul), nulByte},
        {nullptr, "", create("fine", nul, true), nulByte},  // before PAM judges a cut password
        {nullptr, "", store(colonHash),
         "1 addEntryInShadowFile error, the stored password holds ':', a newline or a NUL byte |"},
        {nullptr, "", store(""), "1 addEntryInShadowFile error, an enabled account needs a password: fine |"},
        {nullptr, "", [&](User& u) { u.updateUser(&newName, nullptr, nullptr, nullptr, nullptr, nullptr); },
         "7 updateEntryInPasswordFile error, bad user name |"},
        {nullptr, "", [&](User& u) { u.updateUser(nullptr, nullptr, nullptr, &nul, nullptr, nullptr); }, nulByte},
        {nullptr, "", [&](User& u) { u.updateAnyUserPassword("viewer", nul, false, "", false); }, nulByte},
        {nullptr, "",
         [&](User& u) { u.updatePassword(const_cast<std::string&>(colonHash), const_cast<std::string&>(nul), ""); },
         nulByte},
        {nullptr, "", create("fine", "Good#Pass2026", true, 0), "2 0 (profileId): Role not found |"},
        {nullptr, "", create("viewer", "x", true), "33 "},  // the rules first
        {nullptr, "", create("viewer", "Good#Pass2026"), "0 viewer :user already exists |"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected + " / " + c.line.substr(0, 30));
        restoreSampleDevice();
        User viewer("viewer");
        if (c.file != nullptr) c.line.empty() ? removeEntry(c.file, "viewer") : addLines(c.file, c.line, c.inFront);
        const Snapshot before;
        EXPECT_EQ(refusal([&] { c.change(viewer); }).substr(0, c.expected.size()), c.expected);
        before.expectUnchanged();
        EXPECT_EQ(takeEvents(), "");
        EXPECT_EQ(takeCommands(), "");
    }
}

// Every rejected name, for create and rename, with the reason in the description; a few accepted ones.
TEST_F(ChecksTest, OneNameCheckForCreateAndRename) {
    const bool skip = true;
    const std::pair<std::string, const char*> cases[] = {  // a name, the reason for its refusal or null
        {".", "is '.' or '..'"},
        {"..", "is '.' or '..'"},
        {"10001", "all digits, like a uid"},
        {"a b", "holds whitespace"},
        {"a\xc2\xa0z", "holds whitespace"},  // a no-break space
        {"a\tb", "holds a NUL byte, ':', a newline or another control character"},
        {"a/b", "holds '/' or ','"},
        {"a,b", "holds '/' or ','"},
        {"a\xff", "not valid UTF-8"},
        {"a\xc0\xaf", "not valid UTF-8"},      // an overlong '/'
        {"a\xed\xa0\x80", "not valid UTF-8"},  // a surrogate
        {"", "empty"},
        {std::string(33, 'n'), "longer than 32 bytes"},
        {"-nis", "starts with '+', '-', '~' or '#'"},
        {"~home", "starts with '+', '-', '~' or '#'"},
        {"x:0", "holds a NUL byte, ':', a newline or another control character"},
        {std::string("admin\0", 6), "holds a NUL byte, ':', a newline or another control character"},
        {"j\xc3\xbcrgen", nullptr},
        {"a.b", nullptr},
        {"a_b-1", nullptr},
        {"1a", nullptr},
    };
    for (const auto& c : cases) {
        const std::string& name = c.first;  // a structured binding cannot be captured in C++17
        const char* const reason = c.second;
        SCOPED_TRACE(name);
        restoreSampleDevice();
        User viewer("viewer");
        const Snapshot before;
        const std::string tail = reason == nullptr ? "" : std::string(" error, bad user name | ") + reason;
        const std::string created = refusal(
            [&] { User::createUserWithEncryptedPassword(name, "$6$s$h", 2, true, false, &skip).removeUser(); });
        EXPECT_EQ(created, reason == nullptr ? "ok" : "7 addEntryInPasswordFile" + tail);
        EXPECT_EQ(refusal([&] { viewer.updateUser(&name, nullptr, nullptr, nullptr, nullptr, nullptr); }),
                  reason == nullptr ? "ok" : "7 updateEntryInPasswordFile" + tail);
        if (reason != nullptr) before.expectUnchanged();
    }
    // A name another tool stored does not reach the tally command.
    addLines("/etc/passwd", "a b:x:10008:10002::/:/bin/sh\n");
    addLines("/etc/shadow", "a b:$6$x:20454:0:99999:7:::\n");
    takeCommands();
    EXPECT_EQ(refusal([] { User("a b").unLock(); }), "7 unLock error, bad user name | holds whitespace");
    EXPECT_EQ(takeCommands(), "");
}

}  // namespace
