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
#include <random>
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

// ---- Plain lines.  A line the plain reader takes reads into the same fields through
// fgetpwent_r/fgetspent_r, an entry the plain writer writes is byte for byte what
// putpwent/putspent write, and so is a rewrite of a file mixing plain lines and others.  A
// fixed-seed generator combines pieces of fields that readers and writers treat specially
// (limits, signs, blanks, separators, controls, NIS names), one to three pieces a field.
const std::vector<std::string> kPieces = {
    "",           "0",          "00",         "7",          "10002",      "123456789",
    "1234567890", "2147483647", "4294967294", "4294967295", "4294967296", "99999999999",
    "-1",         "-5",         "+5",         " 5",         "5 ",         "x",
    "admin",      "a b",        "\t",         "\r",         "\x7f",       "\xc3\xbc",
    "#",          "+",          "-",          "+nis",       "-nis",       "$6$salt$h.a/sh",
    "!!",         "*",          "/bin/sh",    " ",          "\v",         "\x01",
};

// A plain line of `fields`, changed in up to three random places: a field replaced by a piece,
// a piece appended to a field, a field inserted or dropped.  A third of the lines stay plain.
std::string mutatedLine(std::mt19937& random, std::vector<std::string> fields) {
    const auto piece = [&] { return kPieces[random() % kPieces.size()]; };
    const int changes = static_cast<int>(random() % 4);
    for (int c = 0; c < changes && !fields.empty(); ++c) {
        const std::size_t at = random() % fields.size();
        const std::ptrdiff_t kind = random() % 4, where = static_cast<std::ptrdiff_t>(at);
        if (kind < 2)
            fields[at] = (kind == 0 ? "" : fields[at]) + piece();
        else if (kind == 2)
            fields.insert(fields.begin() + where, piece());
        else
            fields.erase(fields.begin() + where);
    }
    std::string line;
    for (std::size_t f = 0; f < fields.size(); ++f) line += (f == 0 ? "" : ":") + fields[f];
    return line;
}

std::string pick(std::mt19937& random, std::initializer_list<const char*> values) {
    return values.begin()[random() % values.size()];
}

std::string randomPasswdLine(std::mt19937& random) {
    const auto id = [&] { return pick(random, {"0", "7", "10002", "65534", "123456789"}); };
    return mutatedLine(
        random, {pick(random, {"admin", "u1", "j\xc3\xbcrgen", "a.b-c_d"}), pick(random, {"x", "", "*"}), id(), id(),
                 pick(random, {"", "Some One", "g,h,i"}), "/home/x", pick(random, {"/bin/sh", ""})});
}

std::string randomShadowLine(std::mt19937& random) {
    const auto day = [&] { return pick(random, {"", "0", "7", "20454", "99999"}); };
    return mutatedLine(
        random, {pick(random, {"admin", "u1", "a.b-c_d"}), pick(random, {"$6$salt$h.a/sh", "!!", "*", "", "!!$6$s$h"}),
                 day(), day(), day(), day(), day(), day(), ""});
}

std::string text(const char* field) { return field == nullptr ? "(null)" : field; }

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

std::string passwdFields(const struct passwd& e) {
    return text(e.pw_name) + "|" + text(e.pw_passwd) + "|" + std::to_string(e.pw_uid) + "|" + std::to_string(e.pw_gid) +
           "|" + text(e.pw_gecos) + "|" + text(e.pw_dir) + "|" + text(e.pw_shell);
}

std::string shadowFields(const struct spwd& e) {
    return text(e.sp_namp) + "|" + text(e.sp_pwdp) + "|" + std::to_string(e.sp_lstchg) + "|" +
           std::to_string(e.sp_min) + "|" + std::to_string(e.sp_max) + "|" + std::to_string(e.sp_warn) + "|" +
           std::to_string(e.sp_inact) + "|" + std::to_string(e.sp_expire) + "|" + std::to_string(e.sp_flag);
}

// Holds the plain reader to the C library on `line`; returns whether the plain reader took it.
template <class Entry, class Plain, class Read, class Fields>
bool checkLine(const std::string& line, Plain plain, Read read, Fields fields) {
    std::vector<char> bytes(line.begin(), line.end());  // as getline hands it over: then a NUL
    bytes.push_back('\0');
    Entry ours{};
    if (!plain(bytes.data(), line.size(), ours)) {
        EXPECT_EQ(std::string(bytes.data(), line.size()), line)
            << "a line left to the C library was changed: [" << line << "]";
        return false;
    }
    Entry theirs{};
    std::vector<char> buffer(4096);
    if (!libraryReads(line, theirs, buffer, read)) {
        ADD_FAILURE() << "taken as plain, but no entry to the C library: [" << line << "]";
        return true;
    }
    EXPECT_EQ(fields(ours), fields(theirs)) << "[" << line << "]";
    return true;
}

bool checkPasswdLine(const std::string& line) {
    return checkLine<struct passwd>(line, detail::parsePlainPasswd, fgetpwent_r, passwdFields);
}
bool checkShadowLine(const std::string& line) {
    return checkLine<struct spwd>(line, detail::parsePlainShadow, fgetspent_r, shadowFields);
}

TEST_F(PlainLines, ReadAsTheCLibraryReadsThem) {
    // The sample device's own lines are all plain.
    for (const std::string& line : lines("/etc/passwd")) EXPECT_TRUE(checkPasswdLine(line + "\n")) << line;
    for (const std::string& line : lines("/etc/shadow")) EXPECT_TRUE(checkShadowLine(line + "\n")) << line;
    // Lines that look plain but are not, or are only almost.
    for (const std::string end : {"", "\n"}) {
        for (const char* line :
             {"+::::::", "-nis:x:1:1::/:/bin/sh", "#c:x:1:1::/:/bin/sh", " a:x:1:1::/:/bin/sh", "a:x:1:1::/:/bin/sh ",
              "a:x:01:1::/:/bin/sh", "a:x:1:1::/:/bin/sh:more", "a:x:1:1::/:/bin/\tsh", "a:x:1234567890:1::/:/bin/sh",
              "a:x::1::/:/bin/sh", ":x:1:1::/:/bin/sh", "a:x:1:1:::", "a:x:1:1::/:/bin/sh\r"})
            checkPasswdLine(line + end);
        for (const char* line : {"a:h:1:2:3:4:5:6:", "a:h:1:2:3:4:5:6:7", "a:h:1:2:3", "a:h:::::::", "a:h:1:2:3: 4:::",
                                 "a:h:-1:::::::", "a:h:2147483648:::::::", "+a:h:1::::::", "a:h:1:2:3:4:5:6::"})
            checkShadowLine(line + end);
    }

    std::mt19937 random(20260101);
    std::size_t plainPasswd = 0, plainShadow = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string end = i % 2 == 0 ? "\n" : "";
        plainPasswd += checkPasswdLine(randomPasswdLine(random) + end);
        plainShadow += checkShadowLine(randomShadowLine(random) + end);
        if (HasFailure()) break;
    }
    // The generator must reach the plain reader often enough for the comparison to mean much.
    EXPECT_GT(plainPasswd, 4000u);
    EXPECT_GT(plainShadow, 4000u);
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

// A random field: a piece, sometimes two, sometimes none at all (null).
char* randomText(std::mt19937& random, std::vector<std::string>& keep) {
    if (random() % 16 == 0) return nullptr;
    std::string field = kPieces[random() % kPieces.size()];
    if (random() % 4 == 0) field += random() % 2 ? ":" : "\n";
    if (random() % 4 == 0) field += kPieces[random() % kPieces.size()];
    keep.push_back(field);
    return keep.back().data();
}

TEST_F(PlainLines, WrittenAsTheCLibraryWritesThem) {
    const std::vector<unsigned long> ids = {0, 7, 10002, 2147483647, 4294967294u, 4294967295u};
    std::vector<long> days = {-1, 0, 1, 20454, 99999, -2, -1000, LONG_MAX, LONG_MIN};
    // Where long is 64-bit (not on 32-bit ARM), a day number just past the 32-bit range too.
    if (sizeof(long) > 4) days.push_back(static_cast<long>(std::int64_t{1} << 31));
    // The flags' top bit, whatever the width of unsigned long.
    const std::vector<unsigned long> flags = {~0ul, 0, 123, ~0ul - 1, ~(~0ul >> 1)};
    std::mt19937 random(20260102);
    std::size_t plainPasswd = 0, plainShadow = 0;
    // Whether the plain writer took `entry` (behind what was written before); it must then
    // have written what the C library writes, else nothing.
    const auto written = [](const auto& entry, auto append, auto write, const std::string& shown) {
        std::string ours = "before\n";
        const bool plain = append(ours, entry);
        EXPECT_EQ(ours, "before\n" + (plain ? libraryWrites(entry, write) : std::string())) << shown;
        return plain;
    };
    for (int i = 0; i < 20000 && !HasFailure(); ++i) {
        std::vector<std::string> keep;
        keep.reserve(16);  // the entries point into it
        struct passwd pw {};
        pw.pw_name = randomText(random, keep);
        pw.pw_passwd = randomText(random, keep);
        pw.pw_uid = static_cast<uid_t>(ids[random() % ids.size()]);
        pw.pw_gid = static_cast<gid_t>(ids[random() % ids.size()]);
        pw.pw_gecos = randomText(random, keep);
        pw.pw_dir = randomText(random, keep);
        pw.pw_shell = randomText(random, keep);
        plainPasswd += written(pw, detail::appendPlainPasswd, putpwent, passwdFields(pw));

        struct spwd sp {};
        sp.sp_namp = randomText(random, keep);
        sp.sp_pwdp = randomText(random, keep);
        for (long* field : {&sp.sp_lstchg, &sp.sp_min, &sp.sp_max, &sp.sp_warn, &sp.sp_inact, &sp.sp_expire})
            *field = days[random() % days.size()];
        sp.sp_flag = flags[random() % flags.size()];
        plainShadow += written(sp, detail::appendPlainShadow, putspent, shadowFields(sp));
    }
    EXPECT_GT(plainPasswd, 1000u);
    EXPECT_GT(plainShadow, 1000u);
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
