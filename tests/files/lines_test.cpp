// The plain-line reader and writer of a rewrite (files/EntryLines.h) judged by the C library:
// a line the plain reader takes reads into the same fields through fgetpwent_r/fgetspent_r, an
// entry the plain writer writes is byte for byte what putpwent/putspent write, and so is a
// rewrite of a file mixing plain lines and others.  A fixed-seed generator combines pieces that
// readers and writers treat specially (limits, signs, blanks, separators, controls, NIS names).
#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "FilesTestSupport.h"
#include "files/EntryCopy.h"
#include "files/EntryLines.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

// Pieces of fields.  Each line takes a random number of fields of one to three pieces.
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

using PlainLines = FilesTest;

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
