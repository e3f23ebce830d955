// What the account-file layer refuses to write or to let happen, tried as an attacker and as a
// fault would.  Every refusal is checked for its error and for what it leaves: passwd, shadow
// and group byte for byte as they were, no temporary or kept file, the lock free.
#include <optional>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

const std::type_info& kAccount = typeid(UMException);
const std::type_info& kSystem = typeid(UMSystemErrorException);
constexpr int kBadName = UMError::BadUserName, kPassword = UMError::PasswordError;

struct Refusal {
    std::function<void()> body;
    const std::type_info& type;
    int code;
    std::string message;
};

void expectRefusals(const Snapshot& snapshot, const std::vector<Refusal>& rows) {
    for (const Refusal& row : rows) {
        SCOPED_TRACE(row.message);
        expectFailure(row.body, row.type, row.code, row.message);
        snapshot.expectUnchanged();
    }
}

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
    writeFile("/etc/shadow", readFile("/etc/shadow") + "nohash:!!:20454:0:99999:7:::\n");
    const Snapshot snapshot;
    const std::string nameUsed = "updateEntryInPasswordFile error, update username with a name already used:";
    const std::string control = "bad user name: holds a NUL byte, ':', a newline or another control character";
    const std::string leading = "bad user name: starts with '+', '-' or '#'";
    const std::string add = "addEntryInPasswordFile error, ", addSh = "addEntryInShadowFile error, ";
    const std::string updSh = "updateEntryInShadowFile error, ";
    const std::string hashChars = "the stored password holds ':', a newline or a NUL byte";
    const std::string nulPassword = "cryptPwd error, the password holds a NUL byte";
    const std::string noPassword = "an enabled account needs a password: ";
    expectRefusals(
        snapshot,
        {
            {addPasswd(""), kAccount, kBadName, add + "bad user name: empty"},
            {addPasswd(std::string(33, 'n')), kAccount, kBadName, add + "bad user name: longer than 32 bytes"},
            {addPasswd(std::string("admin\0", 6)), kAccount, kBadName, add + control},
            {addPasswd("evil:0:0"), kAccount, kBadName, add + control},
            {addPasswd("evil\nroot2"), kAccount, kBadName, add + control},
            {addPasswd("del\x7f"), kAccount, kBadName, add + control},
            {addPasswd("+nis"), kAccount, kBadName, add + leading},
            {addPasswd("-nis"), kAccount, kBadName, add + leading},
            {addPasswd("#note"), kAccount, kBadName, add + leading},
            {addPasswd("viewer"), kAccount, UMError::UserAlreadyExists, "viewer :user already exists"},
            {renamePasswd(std::string("admin\0", 6)), kAccount, kBadName,
             "updateEntryInPasswordFile error, " + control},
            {renamePasswd("admin"), kAccount, UMError::UserAlreadyExists,
             nameUsed + "admin"},  // an entry before operator's
            {renamePasswd("guest"), kAccount, UMError::UserAlreadyExists, nameUsed + "guest"},  // and one after it
            {addShadow("a:b", "x"), kAccount, kBadName, addSh + control},
            {updateShadow("viewer", "-x", {}), kAccount, kBadName, updSh + leading},
            {addShadow("fresh", std::string("\0secret", 7)), kAccount, kPassword, nulPassword},
            {updateShadow("viewer", {}, std::string("\0", 1)), kAccount, kPassword, nulPassword},
            {addShadow("fresh", std::string(256, 'p')), typeid(UpdatePasswordException),
             UpdatePasswordError::NewPasswordTooLong, "cryptPwd"},
            {addShadow("fresh", "$6$a:b", true), kAccount, kPassword, addSh + hashChars},
            {addShadow("fresh", "$6$a\nb", true), kAccount, kPassword, addSh + hashChars},
            {addShadow("fresh", std::string("$6$a\0b", 6), true), kAccount, kPassword, addSh + hashChars},
            {updateShadow("viewer", {}, "$6$a:b", true), kAccount, kPassword, updSh + hashChars},
            {addShadow("fresh", "", true), kAccount, kPassword, addSh + noPassword + "fresh"},
            {updateShadow("nohash", {}, {}, false, true), kAccount, kPassword, updSh + noPassword + "nohash"},
            {updateShadow("viewer", {}, "", true), kAccount, kPassword, updSh + noPassword + "viewer"},
        });

    // The limits themselves pass: 32 bytes, bytes above ASCII, a disabled account without hash.
    const std::string longest(32, 'l'), utf8 = "j\xc3\xbcrgen";
    addPasswd(longest)();
    addShadow(utf8, "$6$s$h", true)();
    addShadow("off", "", true, false)();
    EXPECT_EQ(fields(lineOf("/etc/passwd", longest))[2], "10005");
    EXPECT_EQ(fields(lineOf("/etc/shadow", utf8))[1], "$6$s$h");
    EXPECT_EQ(fields(lineOf("/etc/shadow", "off"))[1], "!!");
}

TEST_F(Refusals, TheTemporaryFileIsAlwaysAFreshFileAndNeverTheLiveOne) {
    // /etc/linked leads to /etc/data/passwd, as on a device whose account files live on a
    // data partition; /etc/victim stands for any file a planted link could aim at.
    ASSERT_EQ(mkdir("/etc/data", 0755), 0);
    const std::shared_ptr<void> cleanup(nullptr,
                                        [](void*) { run("rm -rf /etc/data /etc/linked /etc/victim /etc/tmppassd"); });
    writeFile("/etc/data/passwd", readFile("/etc/passwd"));
    ASSERT_EQ(symlink("/etc/data/passwd", "/etc/linked"), 0);
    writeFile("/etc/victim", "precious\n");
    const Snapshot snapshot({"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/data/passwd", "/etc/victim"}, {});
    const std::string added = "planted:x:10005:10002:UI User:/home/admin:/bin/sh\n";
    definition.count = 6;

    const struct {
        const char* plant;  // shell command run first
        const char* live;
        const char* tmp;
        std::string refusal;  // empty: the transaction goes through
    } cases[] = {
        {"ln -s /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", ""},
        {"ln -s /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", ""},
        {"ln /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", ""},
        {"ln /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", ""},
        {"true", "/etc/passwd", "/etc/passwd", "/etc/passwd"},
        {"true", "/etc/passwd", "/etc/../etc/passwd", "/etc/../etc/passwd"},
        {"true", "/etc/linked", "/etc/data/passwd", "/etc/data/passwd"},
        {"true", "/etc/linked", "/etc/data/tmppassd", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.plant) + " / " + c.live + " / " + c.tmp);
        ASSERT_EQ(run(c.plant).status, 0);
        const auto body = [&] {
            rewrite(c.live, c.tmp, [](FileSystemUpdate& t) { addEntryInPasswordFile(t, "planted", 10002); });
        };
        if (!c.refusal.empty()) {
            expectFailure(body, kSystem, UMSystemError::FileTransaction,
                          "FileSystemUpdate:temporary file is the live file (" + c.refusal + ")");
            snapshot.expectUnchanged();
            continue;
        }
        body();
        const std::string target = c.live == std::string("/etc/linked") ? "/etc/data/passwd" : c.live;
        EXPECT_EQ(readFile(target), snapshot.files.at(target) + added);
        EXPECT_EQ(readFile("/etc/victim"), "precious\n");
        EXPECT_FALSE(exists(c.tmp));
        struct stat link {};
        EXPECT_TRUE(lstat("/etc/linked", &link) == 0 && S_ISLNK(link.st_mode)) << "the link was replaced";
        writeFile(target, snapshot.files.at(target));
    }
}

TEST_F(Refusals, ALineTheReaderCannotParseStopsTheRewrite) {
    const struct {
        const char* live;
        std::string line;  // becomes line 3
        bool kept;         // the rewrite goes through with the line as it is
    } cases[] = {
        {"/etc/passwd", "# a comment", false},
        {"/etc/passwd", "broken line", false},
        {"/etc/passwd", "big:x:99999999999:0::/:/bin/sh", false},
        {"/etc/passwd", "noid:x::0::/:/bin/sh", false},
        {"/etc/passwd", std::string("nul:x:5:5::/:/bin/sh\0tail", 25), false},
        {"/etc/shadow", "half:$6$h:1:2", false},
        {"/etc/shadow", "num:$6$h:x:::::", false},
        // An entry longer than any first guess of a buffer is kept whole.
        {"/etc/passwd", "long:x:3000:100:" + std::string(100000, 'g') + ":/:/bin/sh", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        restoreSampleDevice();
        std::vector<std::string> text = lines(c.live);
        text.insert(text.begin() + 2, c.line);
        text.insert(text.begin() + 4, "  ");  // blank lines are no entries and no refusal
        std::string joined;
        for (const std::string& line : text) joined += line + "\n";
        writeFile(c.live, joined);
        const Snapshot snapshot;
        const bool passwd = c.live == std::string("/etc/passwd");
        const auto body = [&] {
            if (passwd)
                inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 10004); });
            else
                inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "guest"); });
        };
        if (!c.kept) {
            expectFailure(body, kSystem, UMSystemError::FileContents,
                          std::string(passwd ? "removeEntryInPasswordFile" : "removeEntryInShadowFile") +
                              " error, line 3 of " + c.live + " is no valid entry; the file is not rewritten");
            snapshot.expectUnchanged();
            continue;
        }
        body();
        EXPECT_EQ(lines(c.live)[2], c.line);
        EXPECT_EQ(lineOf(c.live, "guest"), "");
    }
}

TEST_F(Refusals, ASecondInstallThatFailsPutsTheFirstFileBack) {
    definition.count = 6;
    using Fill = std::function<void(FileSystemUpdate&, FileSystemUpdate&)>;
    const std::string watcher = "watcher";
    const Fill add = [](FileSystemUpdate& p, FileSystemUpdate& s) {
        addEntryInPasswordFile(p, "fresh", 10002);
        addEntryInShadowFile(s, "fresh", "$6$s$h", {true}, -1, -1, -1, true, false);
    };
    const Fill rename = [&](FileSystemUpdate& p, FileSystemUpdate& s) {
        LookUpdatePasswd passwdRecord;
        LookUpdateShadow shadowRecord;
        updateEntryInPasswordFile(p, 10002, 10002, &watcher, passwdRecord);
        updateEntryInShadowFile(s, "viewer", &watcher, nullptr, {}, nullptr, nullptr, shadowRecord);
    };
    const Fill remove = [](FileSystemUpdate& p, FileSystemUpdate& s) {
        removeEntryInPasswordFile(p, 10004);
        removeEntryInShadowFile(s, "guest");
    };
    // Without root the update command installs: this one fails for the shadow file (and, in
    // the last row, for the kept password file too).
    const std::string failsShadow = "sh -c 'case $1 in */tmpshadow) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string failsBoth = "sh -c 'case $1 in */tmpshadow|*.old) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string renameFailed = "rename error of:/etc/tmpshadow to /etc/shadow 2No such file or directory";
    const std::string scriptFailed = "Script update error 768 of:/etc/tmpshadow to /etc/shadow ";
    const struct {
        const char* operation;
        const Fill& fill;
        std::string script;  // empty: root, and the shadow file's temporary file vanishes
        std::string message;
        bool putBack;
    } cases[] = {
        {"add", add, "", renameFailed, true},
        {"rename", rename, "", renameFailed, true},
        {"remove", remove, "", renameFailed, true},
        {"add", add, failsShadow, scriptFailed, true},
        {"rename", rename, failsShadow, scriptFailed, true},
        {"remove", remove, failsShadow, scriptFailed, true},
        {"add", add, failsBoth,
         "FileSystemUpdate:/etc/passwd could not be put back (Script update error 768 of:", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.operation) + (c.script.empty() ? " as root" : " by command"));
        restoreSampleDevice();
        const Snapshot snapshot;
        definition.root = c.script.empty();
        definition.script = c.script;
        expectFailure(
            [&] {
                FileSystemUpdate passwd("/etc/passwd", "/etc/tmppassd", true);
                FileSystemUpdate shadow("/etc/shadow", "/etc/tmpshadow", false);
                passwd.prepareSystemFiles();
                shadow.prepareSystemFiles();
                c.fill(passwd, shadow);
                if (c.script.empty()) {
                    ASSERT_EQ(unlink("/etc/tmpshadow"), 0);
                }
                finalyzeSystemFilesTogether(passwd, shadow);
            },
            kSystem, UMSystemError::FileTransaction, c.message, Match::Start);
        if (c.putBack) {
            snapshot.expectUnchanged();
        } else {
            EXPECT_NE(lineOf("/etc/passwd", "fresh"), "") << "the new password file stays";
            EXPECT_EQ(readFile("/etc/shadow"), snapshot.files.at("/etc/shadow"));
        }
    }
}

}  // namespace
