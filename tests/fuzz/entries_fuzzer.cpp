// Account file lines: the plain readers and writers (files/EntryLines.h) and the copy loop
// (files/EntryCopy.h) held to the C library on the same bytes.
//
// Input: the first byte picks the file (passwd, shadow, group, gshadow: its value modulo 4),
// the rest is the file's text.  The oracle:
//   1. Each line (its newline included when it has one) that parsePlain* takes is read by the C library
//      (fgetpwent_r/fgetspent_r on that line alone) into the same fields; a line it declines
//      is left byte for byte as it was.
//   2. An entry appendPlain* writes is byte for byte what putpwent/putspent write; for the entry
//      of a line parsePlain* took, that is the line itself (with a newline), and the split line
//      put back (restore) is again the line.
//   3. A copy of the whole text (copyEntriesFrom; every second entry kept as read, the others
//      written, every second of these renamed) fails exactly when a non-blank line is no entry to the C library (or holds a
//      NUL byte), or when the C library's writer refuses an entry to be written; otherwise
//      every line of the copy, read back alone, is the entry its input line was, in order.
// C library behaviours taken as they are: blank lines (only " \t\n\r\v\f") are no entries and
// vanish; the writers drop the ids of a NIS reference ("+name", "-name"), so those ids are not
// compared after the copy; putpwent/putspent/putgrent refuse fields holding ':' or a newline
// (a passwd line whose shell field holds further ':' is such an entry); an unterminated last
// line reads as if it had its newline.
#include <grp.h>
#include <gshadow.h>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>

#include "files/EntryCopy.h"

namespace {
using namespace usermanagement;
using namespace usermanagement::detail;

// The fields of an entry, NUL-separated (no field holds a NUL), a missing text as an empty one
// (the C library reads "+" alone so and writes such a field empty); `ids` false leaves out the ids.
std::string t(const char* text) { return std::string(text != nullptr ? text : "") + '\0'; }
std::string fields(const struct passwd& e, bool ids = true) {
    std::string s = t(e.pw_name) + t(e.pw_passwd);
    if (ids) s += t(std::to_string(e.pw_uid).c_str()) + t(std::to_string(e.pw_gid).c_str());
    return s + t(e.pw_gecos) + t(e.pw_dir) + t(e.pw_shell);
}
std::string fields(const struct spwd& e, bool = true) {
    std::string s = t(e.sp_namp) + t(e.sp_pwdp);
    for (const long n : {e.sp_lstchg, e.sp_min, e.sp_max, e.sp_warn, e.sp_inact, e.sp_expire})
        s += t(std::to_string(n).c_str());
    return s + t(std::to_string(e.sp_flag).c_str());
}
std::string fields(const struct group& e, bool ids = true) {
    std::string s = t(e.gr_name) + t(e.gr_passwd) + t(ids ? std::to_string(e.gr_gid).c_str() : "");
    for (char** m = e.gr_mem; m != nullptr && *m != nullptr; ++m) s += "," + t(*m);
    return s;
}
std::string fields(const struct sgrp& e, bool = true) {
    std::string s = t(e.sg_namp) + t(e.sg_passwd);
    for (char** m = e.sg_adm; m != nullptr && *m != nullptr; ++m) s += "," + t(*m);
    s += ";";
    for (char** m = e.sg_mem; m != nullptr && *m != nullptr; ++m) s += "," + t(*m);
    return s;
}
char** nameField(struct passwd& e) { return &e.pw_name; }
char** nameField(struct spwd& e) { return &e.sp_namp; }
char** nameField(struct group& e) { return &e.gr_name; }
char** nameField(struct sgrp& e) { return &e.sg_namp; }
const char* nameOf(const struct passwd& e) { return e.pw_name; }
const char* nameOf(const struct spwd& e) { return e.sp_namp; }
const char* nameOf(const struct group& e) { return e.gr_name; }
const char* nameOf(const struct sgrp& e) { return e.sg_namp; }
bool nis(const char* name) { return name != nullptr && (name[0] == '+' || name[0] == '-'); }

// What the C library writes for `entry`: "(refused)" when it refuses it.
template <class File>
std::string libraryWrites(const typename File::Entry& entry) {
    char* data = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    if (stream == nullptr) std::abort();
    const int status = File::write(entry, stream);
    std::fclose(stream);
    std::string written(data, size);
    std::free(data);
    return status == 0 ? written : "(refused)";
}

// The fields the C library reads from `line` alone, the buffer grown as the copy loop grows it;
// false when it reads no entry.  The line is read with its newline, added when it has none: the
// C library doubles the last byte of an unterminated line that starts with a blank.
// `writable`, when given, tells whether the C library's writer takes the entry; `newName`, when
// given, replaces the name read before the fields are taken.
template <class File>
bool libraryReads(std::string line, std::string& out, bool ids = true, bool* writable = nullptr,
                  char* newName = nullptr) {
    if (line.empty() || line.back() != '\n') line += '\n';
    std::vector<char> buffer(1024);
    for (;;) {
        FILE* stream = fmemopen(const_cast<char*>(line.data()), line.size(), "r");
        if (stream == nullptr) std::abort();
        typename File::Entry entry{}, *result = nullptr;
        const int status = File::parse(stream, entry, buffer.data(), buffer.size(), &result);
        std::fclose(stream);
        if (status == ERANGE && buffer.size() < 2 * kMaxEntryLine) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0 || result == nullptr) return false;
        if (newName != nullptr) *nameField(entry) = newName;
        out = fields(entry, ids && !nis(nameOf(entry)));
        if (writable != nullptr) *writable = libraryWrites<File>(entry) != "(refused)";
        return true;
    }
}

// Checks 1 and 2 on one line.
template <class File>
void checkPlain(const std::string& line) {
    std::vector<char> bytes(line.begin(), line.end());
    bytes.push_back('\0');
    typename File::Entry ours{};
    typename File::Plain split;
    std::string theirs;
    if (!File::parsePlain(bytes.data(), line.size(), ours, split)) {
        if (std::memcmp(bytes.data(), line.data(), line.size()) != 0) std::abort();  // a declined line changed
        return;
    }
    if (!libraryReads<File>(line, theirs) || theirs != fields(ours)) std::abort();  // read otherwise than glibc
    std::string out;
    if (!File::appendPlain(out, ours) || out != libraryWrites<File>(ours)) std::abort();  // written otherwise
    // So the copy loop may write the line as read for an entry that stays as it is.
    if (out != (line.back() == '\n' ? line : line + '\n')) std::abort();
    split.restore();
    if (std::memcmp(bytes.data(), line.data(), line.size()) != 0 || bytes[line.size()] != '\0')
        std::abort();  // not put back as it was
}

bool blank(const std::string& line) { return line.find_first_not_of(" \t\n\r\v\f") == std::string::npos; }

template <class File>
void checkCopy(const std::vector<std::string>& lines, const std::string& text) {
    // What the copy must give: the entries of the non-blank lines, or a refusal.  Every second
    // entry, from the first, is kept as read (Keep: no writer involved for a line the C library
    // parsed), the others are written; every fourth, from the second, renamed first.
    static char renamed[] = "renamed";
    std::vector<std::string> expected;
    bool refused = false;
    for (const std::string& line : lines) {
        if (blank(line)) continue;
        bool writable = true;
        expected.emplace_back();
        char* newName = expected.size() % 4 == 2 ? renamed : nullptr;
        if (line.find('\0') != std::string::npos ||
            !libraryReads<File>(line, expected.back(), false, &writable, newName))
            refused = true;
        if (expected.size() % 2 == 0 && !writable) refused = true;
    }
    static const std::string dir = "/tmp/fuzz-entries-" + std::to_string(getpid());
    static FileSystemUpdate transaction(dir + "/live", dir + "/tmp", false);  // never prepared
    char* data = nullptr;
    std::size_t size = 0;
    transaction.m_tmpFile = open_memstream(&data, &size);
    FILE* source = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    if (transaction.m_tmpFile == nullptr || source == nullptr) std::abort();
    bool failed = false;
    std::size_t entries = 0;
    try {
        copyEntriesFrom<File>(
            transaction, source, "live",
            [&](typename File::Entry& entry) {
                ++entries;
                if (entries % 4 == 2) *nameField(entry) = renamed;
                return entries % 2 == 1 ? EntryAction::Keep : EntryAction::Write;
            },
            "copy", "write");
    } catch (const UMSystemErrorException&) {
        failed = true;
    }
    std::fclose(source);
    std::fclose(transaction.m_tmpFile);
    transaction.m_tmpFile = nullptr;
    const std::string copy(data, size);
    std::free(data);
    if (refused != failed) std::abort();  // refused what the C library reads and writes, or the reverse
    if (failed) return;
    std::size_t at = 0, n = 0;
    for (std::string entry; at < copy.size(); ++n) {
        const std::size_t end = copy.find('\n', at);
        if (end == std::string::npos) std::abort();  // every written line ends with a newline
        const std::string line = copy.substr(at, end + 1 - at);
        at = end + 1;
        if (n >= expected.size() || !libraryReads<File>(line, entry, false) || entry != expected[n]) {
            std::fprintf(stderr, "line %zu of the copy: [%s]\n", n, line.c_str());
            std::abort();  // the copy holds another entry than the input
        }
    }
    if (n != expected.size()) std::abort();  // an entry went missing
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1);
        lines.push_back(text.substr(at, end + 1 - at));
        at = end + 1;
    }
    switch (data[0] % 4) {
    case 0:
        for (const std::string& line : lines) checkPlain<PasswdFile>(line);
        checkCopy<PasswdFile>(lines, text);
        break;
    case 1:
        for (const std::string& line : lines) checkPlain<ShadowFile>(line);
        checkCopy<ShadowFile>(lines, text);
        break;
    case 2:
        checkCopy<GroupFile>(lines, text);
        break;
    default:
        checkCopy<GshadowFile>(lines, text);
    }
    return 0;
}
