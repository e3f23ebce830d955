// The entry functions on the sample device's passwd (managed uids 10000-10004 all taken) and shadow
// (last change 20454, minimum 0, maximum 99999, warning 7 everywhere), and what they refuse.  Then
// the plain-line reader and writer of a rewrite (files/EntryLines.h), judged by the C library.
#include <crypt.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <sstream>
#include <tuple>

#include "FilesTestSupport.h"
#include "files/EntryCopy.h"
#include "files/EntryLines.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kShadow = "/etc/shadow";

std::string today() { return std::to_string(std::time(nullptr) / 86400); }

// Fields 2 to 8 (last change to flag) of a shadow line.
std::string ageingOf(const std::string& line) { return line.substr(line.find(':', line.find(':') + 1) + 1); }

// A SHA-512 hash with a salt of 16 characters that crypt() gives back for `password`.
void expectHashOf(const std::string& password, const std::string& hash) {
    EXPECT_TRUE(hash.rfind("$6$", 0) == 0 && hash.size() == 106 && hash[19] == '$') << hash;
    const char* again = crypt(password.c_str(), hash.c_str());
    EXPECT_TRUE(again != nullptr && hash == again) << "does not verify: " << hash;
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
std::function<void()> updateShadow(std::string name, std::optional<std::string> newName,
                                   std::optional<std::string> password, bool encrypted = false,
                                   std::optional<bool> enabled = {}) {
    return [=] {
        LookUpdateShadow record;
        inShadow([&](FileSystemUpdate& t) {
            updateEntryInShadowFile(t, name, newName ? &*newName : nullptr, password ? &*password : nullptr,
                                    {encrypted}, enabled ? &*enabled : nullptr, nullptr, record);
        });
    };
}

typedef FilesTest PasswdEntries, ShadowEntries, Refusals, PlainLines;

TEST_F(PasswdEntries, GenerateUidTakesTheFirstFreeIdOfTheRange) {
    EXPECT_EQ(generateUID(2001, 5), 2004u);  // 2001-2003 are service accounts
    EXPECT_EQ(generateUID(4294967294u, 1), 4294967294u);
    // A full range, an empty one, one that wraps past the largest id, and the "unknown" id.
    for (const auto& [base, count] : {std::pair{10000u, 5u}, {20000u, 0u}, {4294967290u, 20u}, {4294967295u, 1u}})
        expectFailure([&] { generateUID(base, count); }, typeid(UMException), UMError::MaxUsersReached,
                      "generateUID error, max uid reached");
}

// The rows run one after the other on the same file.
TEST_F(PasswdEntries, UpdateRenamesAndChangesTheProfileAndReportsWhatChanged) {
    const std::string before = readFile("/etc/passwd"), viewer = lineOf("/etc/passwd", "viewer");
    const std::string own = "viewer", other = "watcher",
                      maintenance = ":x:10002:10003:Viewer:/home/admin:/bin/maintenance";
    const struct {
        unsigned int uid, gid;
        const std::string* name;
        std::string line;     // viewer's line afterwards
        std::string oldName;  // reported for a rename
        unsigned int oldGid;  // reported for a profile change
    } cases[] = {
        {10002, 10002, &own, viewer, "", 0},
        {12345, 10000, nullptr, viewer, "", 0},  // an unknown uid copies the file unchanged
        {10002, 10003, nullptr, "viewer" + maintenance, "", 10002},
        {10002, 10003, &other, "watcher" + maintenance, "viewer", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        LookUpdatePasswd record;
        inPasswd([&](FileSystemUpdate& t) { updateEntryInPasswordFile(t, c.uid, c.gid, c.name, record); });
        EXPECT_EQ(readFile("/etc/passwd"), std::string(before).replace(before.find(viewer), viewer.size(), c.line));
        EXPECT_EQ(std::tie(record.nameUpdated, record.oldName, record.profileUpdated, record.oldGid),
                  std::make_tuple(!c.oldName.empty(), c.oldName, c.oldGid != 0, c.oldGid));
    }
}

TEST(PasswdMembership, CountIsTheListLengthNotTheMatchPosition) {
    int count = -1;
    char admin[] = "admin", viewer[] = "viewer", tech[] = "tech";
    char* three[] = {admin, viewer, tech, nullptr};
    char* none[] = {nullptr};
    EXPECT_TRUE(isPresentInListName(three, "admin", count));
    EXPECT_EQ(count, 3);
    EXPECT_FALSE(isPresentInListName(three, "Admin", count));
    EXPECT_FALSE(isPresentInListName(none, "admin", count));
    EXPECT_EQ(count, 0);
}

// transaction_test's two-file rows add ready-made hashes with empty ageing fields.
TEST_F(ShadowEntries, NewEntriesCarryHashStateAndAgeingWhereTheyBelong) {
    const std::string longest(255, 'p');  // 256 bytes are refused
    inShadow([&](FileSystemUpdate& t) { addEntryInShadowFile(t, "fresh", longest, {}, -1, -1, -1, true, false); });
    const std::string fresh = fields(lineOf(kShadow, "fresh"))[1];
    expectHashOf(longest, fresh);

    // Disabled and must change; maximum 90, minimum 1, expiration day 21000.
    inShadow([&](FileSystemUpdate& t) { addEntryInShadowFile(t, "later", longest, {}, 90, 1, 21000, false, true); });
    const std::string later = lines(kShadow).back();
    ASSERT_EQ(later.rfind("later:!!", 0), 0u) << later;
    expectHashOf(longest, fields(later)[1].substr(2));
    EXPECT_NE(fields(later)[1].substr(2), fresh) << "same salt twice";
    EXPECT_EQ(ageingOf(later), "0:1:90:::21000:");
    // A disabled account needs no hash.
    inShadow([&](FileSystemUpdate& t) { addEntryInShadowFile(t, "off", "", {true}, -1, -1, -1, false, false); });
    EXPECT_EQ(fields(lineOf(kShadow, "off"))[1], "!!");
}

TEST_F(ShadowEntries, UpdateSplitsTheDisabledMarkAndReportsWhatChanged) {
    const struct {
        const char* initial;  // hash field before
        std::optional<bool> enabled;
        std::optional<std::string> password;  // stored as given
        std::optional<bool> mustChange;
        std::string expected;  // hash field and last change after
        int activation;
    } cases[] = {
        {"H", false, {}, {}, "!!H:20454", 1},
        {"!!H", false, {}, {}, "!!H:20454", 2},
        {"!!H", true, {}, {}, "H:20454", 0},
        {"!H", true, {}, {}, "!H:20454", 2},               // a single "!" is part of the hash
        {"!!H", {}, "$6$new$P", true, "!!$6$new$P:0", 2},  // a new password keeps it disabled
        {"H", {}, {}, false, "H:" + today(), 2},
    };
    const std::string sample = readFile(kShadow);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.initial) + " -> " + c.expected);
        writeFile(kShadow, sample + "acct:" + c.initial + ":20454:0:99999:7:::\n");
        LookUpdateShadow record;
        inShadow([&](FileSystemUpdate& t) {
            updateEntryInShadowFile(t, "acct", nullptr, c.password ? &*c.password : nullptr, {true},
                                    c.enabled ? &*c.enabled : nullptr, c.mustChange ? &*c.mustChange : nullptr, record);
        });
        EXPECT_EQ(readFile(kShadow), sample + "acct:" + c.expected + ":0:99999:7:::\n");
        EXPECT_EQ(std::tie(record.activation, record.passwordUpdated, record.passwordExpired),
                  std::make_tuple(c.activation, c.password.has_value(), c.mustChange.value_or(false)));
    }
}

TEST_F(ShadowEntries, AgeingPolicyReachesManagedAccountsOnly) {
    // uid 10005, the first id past the managed range, is not managed.
    addLines("/etc/passwd", "beyond:x:10005:10002::/:/bin/sh\n");
    addLines(kShadow, "beyond:$6$b$h:20454:0:99999:7:::\n");
    const std::vector<std::string> old = lines(kShadow);  // admin..guest (10000-10004) are lines 6 to 10
    updateExpirationDate();                               // nothing configured: ageing off, last change kept
    for (std::size_t i = 6; i <= 10; ++i) EXPECT_EQ(ageingOf(lines(kShadow)[i]), "20454:::7:::") << old[i];

    // Base account exempt; last change restarts today; inactivity period 14 days.
    definition.ageing = {90, 1, 14, 1};
    updateExpirationDate();
    const std::vector<std::string> now = lines(kShadow);
    ASSERT_EQ(now.size(), old.size());
    EXPECT_EQ(ageingOf(now[6]), "20454:::7:::");
    for (std::size_t i = 7; i <= 10; ++i) EXPECT_EQ(ageingOf(now[i]), today() + ":1:90:7:14::") << old[i];
    for (std::size_t i = 0; i < now.size(); ++i) EXPECT_EQ(fields(now[i])[1], fields(old[i])[1]) << "hash changed";
    for (std::size_t i : {0, 1, 2, 3, 4, 5, 11, 12}) EXPECT_EQ(now[i], old[i]) << "unmanaged account changed";
}

// Every refusal leaves passwd, shadow and group byte for byte as they were, no temporary file,
// the lock free.
TEST_F(Refusals, NamesAndPasswordsTheFilesCannotHoldFaithfully) {
    definition.count = 6;  // 10005 is free: no refusal is for want of a uid
    addLines("/etc/shadow", "nohash:!!:20454:0:99999:7:::\n");
    const Snapshot snapshot;
    const std::string add = "addEntryInPasswordFile error, bad user name", addSh = "addEntryInShadowFile error, ";
    const std::string updSh = "updateEntryInShadowFile error, ", badName = "bad user name";
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
        // Each function that writes a name runs the one name check (its reasons: tests/accounts).
        {addPasswd("a b"), UMError::BadUserName, add},
        {addPasswd("viewer"), UMError::UserAlreadyExists, "viewer :user already exists"},
        {renamePasswd("10009"), UMError::BadUserName, "updateEntryInPasswordFile error, " + badName},
        {renamePasswd("admin"), UMError::UserAlreadyExists, nameUsed + "admin"},  // an entry before operator's
        {renamePasswd("guest"), UMError::UserAlreadyExists, nameUsed + "guest"},  // and one after it
        {addShadow("a/b", "x"), UMError::BadUserName, addSh + badName},
        {updateShadow("viewer", "..", {}), UMError::BadUserName, updSh + badName},
        // A shadow entry of a name whose account exists is that account's, never a stale one.
        {addShadow("viewer", "x"), UMError::UserAlreadyExists, "viewer :user already exists"},
        {updateShadow("operator", "viewer", {}), UMError::UserAlreadyExists, "viewer :user already exists"},
        {updateShadow("nosuch", {}, std::string("\0", 1)), UMError::PasswordError, nulPassword},
        {addShadow("fresh", std::string("\0secret", 7)), UMError::PasswordError, nulPassword},
        {updateShadow("viewer", {}, std::string("\0", 1)), UMError::PasswordError, nulPassword},
        {addShadow("fresh", std::string(256, 'p')), UpdatePasswordError::NewPasswordTooLong, "cryptPwd",
         &typeid(UpdatePasswordException)},
        {addShadow("fresh", "$6$a:b", true), UMError::PasswordError, addSh + hashChars},
        {addShadow("fresh", "$6$a\nb", true), UMError::PasswordError, addSh + hashChars},
        {addShadow("fresh", std::string("$6$a\0b", 6), true), UMError::PasswordError, addSh + hashChars},
        {addShadow("fresh", "", true), UMError::PasswordError, addSh + noPassword + "fresh"},
        {addShadow("fresh", "$6$" + std::string(510, 'h'), true), UMError::PasswordError,
         addSh + "the stored password is longer than 512 bytes"},
        {updateShadow("nohash", {}, {}, false, true), UMError::PasswordError, updSh + noPassword + "nohash"},
        {updateShadow("viewer", {}, "", true), UMError::PasswordError, updSh + noPassword + "viewer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        expectFailure(c.body, *c.type, c.code, c.message);
        snapshot.expectUnchanged();
    }
}

// The row's line goes last, behind a blank line: blank lines are no entries and no refusal (the
// only lines a rewrite leaves out), but they count in the line number.
TEST_F(Refusals, ARemovalKeepsEveryOtherEntryAndStopsAtALineTheReaderCannotParse) {
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
        {"/etc/shadow", "kept:$6$h:1:2:3:4:5:6:", ""},
        // An entry longer than any first guess of a buffer is kept whole, up to 1 MiB.
        {"/etc/passwd", "long:x:3000:100:" + std::string(100000, 'g') + ":/:/bin/sh", ""},
        {"/etc/passwd", "huge:x:3000:100:" + std::string(1536 * 1024, 'g') + ":/:/bin/sh",
         " error in reading /etc/passwd"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        restoreSampleDevice();
        addLines(c.live, "  \n" + c.line + "\n");
        Snapshot expected;
        const bool passwd = c.live == std::string("/etc/passwd");
        const auto body = [&] {
            rewrite(c.live, passwd ? "/etc/tmppassd" : "/etc/tmpshadow", [&](FileSystemUpdate& t) {
                passwd ? removeEntryInPasswordFile(t, 10004) : removeEntryInShadowFile(t, "guest");
            });
        };
        if (c.refusal.empty()) {
            std::string& text = expected.files[c.live];
            for (const std::string& gone : {lineOf(c.live, "guest") + "\n", std::string("  \n")})
                text.erase(text.find(gone), gone.size());
            body();
        } else {
            expectFailure(body, typeid(UMSystemErrorException), UMSystemError::FileContents,
                          (passwd ? "removeEntryInPasswordFile" : "removeEntryInShadowFile") + c.refusal);
        }
        expected.expectUnchanged();
    }
}

// ---- Plain lines (the fast readers and writers line by line are the entries fuzz target's).
// A rewrite of a file mixing plain lines and others is byte for byte what the C library's
// reader and writer make of it.
// What the C library reads from `line` alone: false when it reads no entry from it.
template <class Entry, class Read>
bool libraryReads(const std::string& line, Entry& entry, std::vector<char>& buffer, Read read) {
    FILE* stream = fmemopen(const_cast<char*>(line.data()), line.size(), "r");
    if (stream == nullptr) throw std::runtime_error("fmemopen failed");
    Entry* result = nullptr;
    const int status = read(stream, &entry, buffer.data(), buffer.size(), &result);
    std::fclose(stream);
    return status == 0 && result != nullptr;
}

// What the C library writes for `entry` (empty when it refuses it).
template <class Entry, class Write>
std::string libraryWrites(const Entry& entry, Write write) {
    char* data = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    if (stream == nullptr) throw std::runtime_error("open_memstream failed");
    const int status = write(&entry, stream);
    std::fclose(stream);
    std::string written(data, size);
    std::free(data);
    return status == 0 ? written : std::string();
}

// The C library's reader and writer applied line by line: what a copy of `text` must give.
template <class Entry, class Read, class Write>
std::string libraryCopy(const std::string& text, Read read, Write write) {
    std::string copy;
    std::istringstream in(text);
    std::vector<char> buffer(1 << 16);
    for (std::string line; std::getline(in, line);) {
        if (line.find_first_not_of(" \t\r\v\f") == std::string::npos) continue;
        Entry entry{};
        if (!libraryReads(line + "\n", entry, buffer, read)) throw std::runtime_error("no entry: " + line);
        copy += libraryWrites(entry, write);
    }
    return copy;
}

// A last line without a newline that starts with a blank: the C library alone misreads it (it
// doubles the line's last byte), so the reader hands it over with a newline.
TEST_F(PlainLines, AnUnterminatedLastLineIsReadWhole) {
    const std::string passwd = readFile("/etc/passwd"), shadow = readFile("/etc/shadow");
    writeFile("/etc/passwd", passwd + " spaced:x:3001:100::/:/bin/sh");
    writeFile("/etc/shadow", shadow + " spaced:$6$h:1:2:3:4:5:6:");
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 4000000000u); });
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "nosuch"); });
    EXPECT_EQ(readFile("/etc/passwd"), passwd + "spaced:x:3001:100::/:/bin/sh\n");
    EXPECT_EQ(readFile("/etc/shadow"), shadow + "spaced:$6$h:1:2:3:4:5:6:\n");
}

// Lines the plain reader leaves to the C library go through it, between plain ones, and a file
// larger than a write chunk is written whole.
TEST_F(PlainLines, ACopyIsWhatTheCLibraryWouldWrite) {
    std::string passwd = readFile("/etc/passwd"), shadow = readFile("/etc/shadow");
    passwd += "+nis::::::\n-other:x:::::\nlead:x:007:0100::/:/bin/sh\nspaced:x: 12:13:a b:/:/bin/sh \n";
    shadow += "old:$6$h:1:2:3\nflagged:$6$h:1:2:3:4:5:6:77\nsigned:$6$h:+1::::::\n";
    for (int i = 0; i < 3000; ++i) {
        const std::string name = "filler" + std::to_string(i);
        passwd += name + ":x:" + std::to_string(30000 + i) + ":100:Filler " + std::to_string(i) + ":/:/bin/false\n";
        shadow += name + ":$6$salt$" + std::string(86, 'h') + ":20454:0:99999:7:::\n";
    }
    writeFile("/etc/passwd", passwd);
    writeFile("/etc/shadow", shadow);
    const std::string expectedPasswd = libraryCopy<struct passwd>(passwd, fgetpwent_r, putpwent);
    const std::string expectedShadow = libraryCopy<struct spwd>(shadow, fgetspent_r, putspent);
    ASSERT_GT(expectedShadow.size(), 2 * detail::kWriteChunk);
    // Removing accounts that do not exist copies every entry.
    inPasswd([](FileSystemUpdate& t) { removeEntryInPasswordFile(t, 4000000000u); });
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "nosuch"); });
    EXPECT_EQ(readFile("/etc/passwd"), expectedPasswd);
    EXPECT_EQ(readFile("/etc/shadow"), expectedShadow);

    // A group of 50 000 members: its entry needs far more room than the first parse buffer holds.
    std::string crowd = "crowd:x:4300:m0";
    for (int i = 1; i < 50000; ++i) crowd += ",m" + std::to_string(i);
    addLines("/etc/group", crowd + "\n");
    const std::string group = readFile("/etc/group");
    rewrite("/etc/group", "/etc/tmpgroup", [](FileSystemUpdate& t) {
        detail::copyEntries<detail::GroupFile>(
            t, [](struct group&) { return detail::EntryAction::Write; }, "copy", "");
    });
    EXPECT_EQ(readFile("/etc/group"), group);
}

}  // namespace
