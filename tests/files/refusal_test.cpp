// What the entry functions refuse: what the account files cannot hold faithfully, and live
// files with a line the reader cannot parse.  Every refusal leaves passwd, shadow and group
// byte for byte as they were, no temporary file, the lock free.
#include <optional>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

// Single-file operations as the account layer runs them: one transaction each.
std::function<void()> addPasswd(std::string name) {
    return [=] { inPasswd([&](FileSystemUpdate& t) { addEntryInPasswordFile(t, name, 10002); }); };
}
std::function<void()> renamePasswd(std::string name) {
    return [=] {
        LookUpdatePasswd record;
        inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, 10001, 10001, &name, record); });
    };
}
std::function<void()> addShadow(std::string name, std::string password, bool encrypted = false, bool enabled = true) {
    return [=] {
        inShadow([&](FileSystemUpdate& t) {
            addEntryInShadowFile(t, name, password, {encrypted}, -1, -1, -1, enabled, false);
        });
    };
}
using Maybe = std::optional<std::string>;
std::function<void()> updateShadow(std::string name, Maybe newName, Maybe password, bool encrypted = false,
                                   std::optional<bool> enabled = {}) {
    return [=] {
        LookUpdateShadow record;
        inShadow([&](FileSystemUpdate& t) {
            updateEntryInShadowFile(t, name, newName ? &*newName : nullptr, password ? &*password : nullptr,
                                    {encrypted}, enabled ? &*enabled : nullptr, nullptr, record);
        });
    };
}

using Refusals = FilesTest;

TEST_F(Refusals, NamesAndPasswordsTheFilesCannotHoldFaithfully) {
    definition.count = 6;  // 10005 is free: no refusal is for want of a uid
    addLines("/etc/shadow", "nohash:!!:20454:0:99999:7:::\n");
    const Snapshot snapshot;
    const std::string add = "addEntryInPasswordFile error, bad user name: ", addSh = "addEntryInShadowFile error, ";
    const std::string updSh = "updateEntryInShadowFile error, ", badName = "bad user name: ";
    const std::string control = "holds a NUL byte, ':', a newline or another control character";
    const std::string leading = "starts with '+', '-' or '#'";
    const std::string nameUsed = "updateEntryInPasswordFile error, update username with a name already used:";
    const std::string hashChars = "the stored password holds ':', a newline or a NUL byte";
    const std::string nulPassword = "cryptPwd error, the password holds a NUL byte";
    const std::string noPassword = "an enabled account needs a password: ";
    const struct {
        std::function<void()> body;
        int code;
        std::string message;
        const std::type_info* type = &typeid(UMException);
    } cases[] = {
        {addPasswd(""), UMError::BadUserName, add + "empty"},
        {addPasswd(std::string(33, 'n')), UMError::BadUserName, add + "longer than 32 bytes"},
        {addPasswd(std::string("admin\0", 6)), UMError::BadUserName, add + control},
        {addPasswd("evil:0:0"), UMError::BadUserName, add + control},
        {addPasswd("evil\nroot2"), UMError::BadUserName, add + control},
        {addPasswd("del\x7f"), UMError::BadUserName, add + control},
        {addPasswd("+nis"), UMError::BadUserName, add + leading},
        {addPasswd("-nis"), UMError::BadUserName, add + leading},
        {addPasswd("#note"), UMError::BadUserName, add + leading},
        {addPasswd("viewer"), UMError::UserAlreadyExists, "viewer :user already exists"},
        {renamePasswd(std::string("admin\0", 6)), UMError::BadUserName,
         "updateEntryInPasswordFile error, " + badName + control},
        {renamePasswd("admin"), UMError::UserAlreadyExists, nameUsed + "admin"},  // an entry before operator's
        {renamePasswd("guest"), UMError::UserAlreadyExists, nameUsed + "guest"},  // and one after it
        {addShadow("a:b", "x"), UMError::BadUserName, addSh + badName + control},
        {updateShadow("viewer", "-x", {}), UMError::BadUserName, updSh + badName + leading},
        {addShadow("fresh", std::string("\0secret", 7)), UMError::PasswordError, nulPassword},
        {updateShadow("viewer", {}, std::string("\0", 1)), UMError::PasswordError, nulPassword},
        {addShadow("fresh", std::string(256, 'p')), UpdatePasswordError::NewPasswordTooLong, "cryptPwd",
         &typeid(UpdatePasswordException)},
        {addShadow("fresh", "$6$a:b", true), UMError::PasswordError, addSh + hashChars},
        {addShadow("fresh", "$6$a\nb", true), UMError::PasswordError, addSh + hashChars},
        {addShadow("fresh", std::string("$6$a\0b", 6), true), UMError::PasswordError, addSh + hashChars},
        {updateShadow("viewer", {}, "$6$a:b", true), UMError::PasswordError, updSh + hashChars},
        {addShadow("fresh", "", true), UMError::PasswordError, addSh + noPassword + "fresh"},
        {updateShadow("nohash", {}, {}, false, true), UMError::PasswordError, updSh + noPassword + "nohash"},
        {updateShadow("viewer", {}, "", true), UMError::PasswordError, updSh + noPassword + "viewer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        expectFailure(c.body, *c.type, c.code, c.message);
        snapshot.expectUnchanged();
    }

    // A disabled account needs no hash.
    addShadow("off", "", true, false)();
    EXPECT_EQ(fields(lineOf("/etc/shadow", "off"))[1], "!!");
}

// The line goes last, behind a blank line: blank lines are no entries and no refusal, but they
// count in the line number.
TEST_F(Refusals, ALineTheReaderCannotParseStopsTheRewrite) {
    const std::string invalid = " is no valid entry; the file is not rewritten";
    const std::string passwdLine = " error, line 14 of /etc/passwd" + invalid,
                      shadowLine = " error, line 14 of /etc/shadow" + invalid;
    const struct {
        const char* live;
        std::string line;
        std::string refusal;  // after the function's name; empty: the rewrite keeps the line as it is
    } cases[] = {
        {"/etc/passwd", "# a comment", passwdLine},
        {"/etc/passwd", "broken line", passwdLine},
        {"/etc/passwd", "big:x:99999999999:0::/:/bin/sh", passwdLine},
        {"/etc/passwd", "noid:x::0::/:/bin/sh", passwdLine},
        {"/etc/passwd", std::string("nul:x:5:5::/:/bin/sh\0tail", 25), passwdLine},
        {"/etc/shadow", "half:$6$h:1:2", shadowLine},
        {"/etc/shadow", "num:$6$h:x:::::", shadowLine},
        // An entry longer than any first guess of a buffer is kept whole, up to 1 MiB.
        {"/etc/passwd", "long:x:3000:100:" + std::string(100000, 'g') + ":/:/bin/sh", ""},
        {"/etc/passwd", "huge:x:3000:100:" + std::string(1536 * 1024, 'g') + ":/:/bin/sh",
         " error in reading /etc/passwd"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        restoreSampleDevice();
        addLines(c.live, "  \n" + c.line + "\n");
        const Snapshot snapshot;
        const bool passwd = c.live == std::string("/etc/passwd");
        const auto body = [&] {
            rewrite(c.live, passwd ? "/etc/tmppassd" : "/etc/tmpshadow", [&](FileSystemUpdate& t) {
                passwd ? removeEntryInPasswordFile(t, 10004) : removeEntryInShadowFile(t, "guest");
            });
        };
        if (!c.refusal.empty()) {
            expectFailure(body, typeid(UMSystemErrorException), UMSystemError::FileContents,
                          (passwd ? "removeEntryInPasswordFile" : "removeEntryInShadowFile") + c.refusal);
            snapshot.expectUnchanged();
            continue;
        }
        body();
        EXPECT_EQ(lines(c.live).back(), c.line);
        EXPECT_EQ(lineOf(c.live, "guest"), "");
    }
}

}  // namespace
