// What the files must look like before an account changes, the one name check, and lookups
// behind a line too long to read: each refusal leaves passwd and shadow as they were.
#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

using ChecksTest = AccountsTest;

// "ok", or "<code> <message> | <description>".
std::string refusal(const std::function<void()>& call) try {
    call();
    return "ok";
} catch (tarvicexception::TvcException& e) {
    return std::to_string(e.getErrorId()) + " " + e.what() + " | " + e.getErrorDescription();
}

const std::string kTwinUid = "twin:x:10002:10002::/:/bin/sh\n", kTwinName = "viewer:x:10007:10002::/:/bin/sh\n";
const std::string kTwinShadow = "viewer:$6$x:20454:0:99999:7:::\n";

TEST_F(ChecksTest, AccountsStoredTwiceOrHalfAreRefusedUnchanged) {
    const bool no = false;
    const std::string name = "renamed", fresh = "Fresh#Pass2026", longHash = "$6$" + std::string(510, 'h');
    using Change = std::function<void(User&)>;
    const Change rename = [&](User& u) { u.updateUser(&name, nullptr, nullptr, nullptr, nullptr, nullptr); };
    const Change disable = [&](User& u) { u.updateUser(nullptr, nullptr, &no, nullptr, nullptr, nullptr); };
    const Change reset = [&](User& u) { u.updateAnyUserPassword("viewer", fresh, false, "", false); };
    const Change remove = [](User&u) { u.removeUser(); }, unlock = [](User&u) { u.unLock(); };
    const std::string twice = "43 viewer :The account (uid 10002) is stored more than once: ";
    const std::string half = "44 viewer :The account (uid 10002) is in ";
    const struct {
        const char* file;  // where `line` goes, or the file whose viewer entry goes when `line` is empty
        std::string line;
        std::function<void(User&)> change;
        std::string expected;  // the start of the refusal
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        restoreSampleDevice();
        User viewer("viewer");
        c.line.empty() ? removeEntry(c.file, "viewer") : addLines(c.file, c.line);
        const std::string files = readFile("/etc/passwd") + readFile("/etc/shadow");
        EXPECT_EQ(refusal([&] { c.change(viewer); }).substr(0, c.expected.size()), c.expected);
        EXPECT_EQ(readFile("/etc/passwd") + readFile("/etc/shadow"), files);
    }
    EXPECT_EQ(takeCommands(), "");
}

// Every rejected name, for create and rename, with the reason in the description; a few accepted ones.
TEST_F(ChecksTest, OneNameCheckForCreateAndRename) {
    const bool skip = true;
    const struct {
        std::string name;
        const char* reason;  // null: accepted
    } cases[] = {
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
        {"-nis", "starts with '+', '-' or '#'"},
        {"x:0", "holds a NUL byte, ':', a newline or another control character"},
        {std::string("admin\0", 6), "holds a NUL byte, ':', a newline or another control character"},
        {"j\xc3\xbcrgen", nullptr},
        {"a.b", nullptr},
        {"a_b-1", nullptr},
        {"1a", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        restoreSampleDevice();
        User viewer("viewer");
        const std::string passwd = readFile("/etc/passwd"), shadow = readFile("/etc/shadow");
        const std::string tail = c.reason == nullptr ? "" : std::string(" error, bad user name | ") + c.reason;
        const std::string created = refusal(
            [&] { User::createUserWithEncryptedPassword(c.name, "$6$s$h", 2, true, false, &skip).removeUser(); });
        EXPECT_EQ(created, c.reason == nullptr ? "ok" : "7 addEntryInPasswordFile" + tail);
        EXPECT_EQ(refusal([&] { viewer.updateUser(&c.name, nullptr, nullptr, nullptr, nullptr, nullptr); }),
                  c.reason == nullptr ? "ok" : "7 updateEntryInPasswordFile" + tail);
        if (c.reason != nullptr) {
            EXPECT_EQ(readFile("/etc/passwd") + readFile("/etc/shadow"), passwd + shadow);
        }
    }
    // A name another tool stored does not reach the tally command.
    addLines("/etc/passwd", "a b:x:10008:10002::/:/bin/sh\n");
    addLines("/etc/shadow", "a b:$6$x:20454:0:99999:7:::\n");
    takeCommands();
    EXPECT_EQ(refusal([] { User("a b").unLock(); }), "7 unLock error, bad user name | holds whitespace");
    EXPECT_EQ(takeCommands(), "");
}

// A line longer than the largest lookup buffer before the entry: the lookup failed (12), the
// account is not "not found" (5) and its password not empty.
TEST_F(ChecksTest, ALineTooLongToReadFailsTheLookupsBehindIt) {
    const std::string huge = std::string(17u << 20, 'h');
    const struct {
        const char* file;
        std::string line;
        std::function<void()> lookup;
    } cases[] = {
        {"/etc/passwd", "huge:x:3000:100:" + huge + ":/:/bin/sh\n", [] { User("viewer"); }},
        {"/etc/shadow", "huge:" + huge + ":20454::::::\n", [] { User("viewer").updateState(); }},
        {"/etc/shadow", "huge:" + huge + ":20454::::::\n", [] { User("viewer").getEncryptedPassword(); }},
    };
    for (const auto& c : cases) {
        restoreSampleDevice();
        addLines(c.file, c.line, true);
        EXPECT_EQ(outcomeCode(c.lookup), "12") << c.file;
    }
}

}  // namespace
