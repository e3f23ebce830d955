// Reading and writing the common entry lines without the C library's stream machinery.
//
// A rewrite reads and writes every line of a file; the C library's reentrant readers and its
// putpwent/putspent cost a stream and a formatted print per entry.  Nearly every line of an
// account file is plain: the right number of fields, numbers written as plain decimals, no
// blanks or control characters where a reader might treat them specially.  Such a line is
// parsed and written here directly; any other line or entry takes the C library's way
// (EntryCopy.h), which stays the judge of what is an entry:
//
//   - parsePlain* accept only lines that the C library's parser reads into exactly the same
//     fields, and leave every other line untouched (false) for it to decide.  They split a line
//     in place (its separators and newline become NUL, the entry points into it) and record
//     where, so that restore() puts the line back byte for byte;
//   - appendPlain* write exactly the bytes that putpwent/putspent would write, and decline
//     (false, nothing appended) the entries those functions refuse or rewrite;
//   - the two meet: the entry of a line parsePlain* took, written by appendPlain*, is that very
//     line (with a newline).  The copy loop relies on it to write such a line back as read when
//     its entry is unchanged (sameEntry).
//
// A line is looked at 8 bytes at a time (one 64-bit word: which bytes are separators, whether
// one is a control character), and the numbers are read digit by digit within the bounds below,
// without the C library's number parsing.
//
// tests/fuzz/entries_fuzzer.cpp holds all of this against the C library on any bytes.
#pragma once

#include <pwd.h>
#include <shadow.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace usermanagement::detail {

// A line of `colons` + 1 fields, located, then split in place and put back as it was.
template <std::size_t colons>
struct PlainLine {
    char* line = nullptr;
    std::size_t end = 0;  // length without the newline
    bool newline = false;
    std::size_t colon[colons] = {};

    const char* begin(std::size_t field) const { return field == 0 ? line : line + colon[field - 1] + 1; }
    const char* finish(std::size_t field) const { return field == colons ? line + end : line + colon[field]; }
    // Field i as a string of its own, once terminate() has run.
    char* text(std::size_t field) const { return const_cast<char*>(begin(field)); }
    // Splits the line in place: each ':' and the newline become NUL.  line[end] is the newline or,
    // for a line without one, the byte after the line, which the caller provides.
    void terminate() const {
        for (const std::size_t at : colon) line[at] = '\0';
        line[end] = '\0';
    }
    // Undoes terminate(): the line's bytes are again those that were read (the byte after a line
    // without newline becomes NUL).
    void restore() const {
        for (const std::size_t at : colon) line[at] = ':';
        line[end] = newline ? '\n' : '\0';
    }
};

// Eight bytes of a line at a time, each byte's verdict in its high bit (0x80 where it holds, 0
// elsewhere): exact per byte, no carry reaches the next byte.
constexpr std::uint64_t kHighBits = 0x8080808080808080ull;
constexpr std::uint64_t kLowBits = 0x7f7f7f7f7f7f7f7full;
constexpr std::uint64_t kEveryByte = 0x0101010101010101ull;

// The bytes equal to zero.
inline std::uint64_t zeroBytes(std::uint64_t word) { return ~(((word & kLowBits) + kLowBits) | word | kLowBits); }

// The bytes a plain line must not hold: control characters (below 0x20, and 0x7f).  Bytes of
// 0x80 and above are none.
inline std::uint64_t controlBytes(std::uint64_t word) {
    const std::uint64_t below = ~((word & kLowBits) + (0x80 - 0x20) * kEveryByte) & ~word & kHighBits;
    return below | zeroBytes(word ^ (0x7f * kEveryByte));
}

inline std::uint64_t colonBytes(std::uint64_t word) { return zeroBytes(word ^ (':' * kEveryByte)); }

// `count` bytes of a line (1 to 8) as a word, the line's first byte in the lowest bits; a short
// word is filled with blanks, which are no byte looked for.
inline std::uint64_t wordAt(const char* line, std::size_t count) {
    std::uint64_t word = 0x20 * kEveryByte;
    std::memcpy(&word, line, count);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = __builtin_bswap64(word);
#endif
    return word;
}

// Locates the fields of `line` (`size` bytes, the newline included if any).  False when the line
// is not plain: an empty first field; a first byte that readers treat specially ('+' and '-' for
// NIS references, '#' for comments, a blank); a blank as last byte; a control character
// anywhere; another number of separators.  The line is looked at 8 bytes at a time.
template <std::size_t colons>
bool findPlainFields(char* line, std::size_t size, PlainLine<colons>& fields) {
    std::size_t end = size;
    const bool newline = end > 0 && line[end - 1] == '\n';
    if (newline) --end;
    if (end == 0) return false;
    const char first = line[0];
    if (first == ':' || first == '+' || first == '-' || first == '#' || first == ' ' || line[end - 1] == ' ')
        return false;
    std::size_t found = 0;
    for (std::size_t at = 0; at < end; at += 8) {
        const std::uint64_t word = end - at >= 8 ? wordAt(line + at, 8) : wordAt(line + at, end - at);
        if (controlBytes(word) != 0) return false;
        for (std::uint64_t colon = colonBytes(word); colon != 0; colon &= colon - 1) {
            if (found == colons) return false;
            fields.colon[found++] = at + static_cast<std::size_t>(__builtin_ctzll(colon)) / 8;
        }
    }
    if (found != colons) return false;
    fields.line = line;
    fields.end = end;
    fields.newline = newline;
    return true;
}

// A number written as plain decimal digits: 1 to 9 of them, no sign, no blank, no leading zero.
// The bound keeps every such number far inside uid_t, gid_t and int, where readers agree.
inline bool plainNumber(const char* begin, const char* end, unsigned long& value) {
    const std::size_t digits = static_cast<std::size_t>(end - begin);
    if (digits == 0 || digits > 9 || (begin[0] == '0' && digits > 1)) return false;
    value = 0;
    for (const char* c = begin; c != end; ++c) {
        if (*c < '0' || *c > '9') return false;
        value = value * 10 + static_cast<unsigned long>(*c - '0');
    }
    return true;
}

// A day count of the shadow file: an empty field is -1.
inline bool plainDays(const char* begin, const char* end, long& value) {
    if (begin == end) {
        value = -1;
        return true;
    }
    unsigned long number = 0;
    if (!plainNumber(begin, end, number)) return false;
    value = static_cast<long>(number);
    return true;
}

using PlainPasswdLine = PlainLine<6>;
using PlainShadowLine = PlainLine<8>;

// name:password:uid:gid:gecos:home:shell.  On success the entry points into `line`, split by
// `fields` (whose restore() gives the line back).
inline bool parsePlainPasswd(char* line, std::size_t size, struct passwd& entry, PlainPasswdLine& fields) {
    unsigned long uid = 0, gid = 0;
    if (!findPlainFields(line, size, fields) || !plainNumber(fields.begin(2), fields.finish(2), uid) ||
        !plainNumber(fields.begin(3), fields.finish(3), gid))
        return false;
    fields.terminate();
    entry.pw_name = fields.text(0);
    entry.pw_passwd = fields.text(1);
    entry.pw_uid = static_cast<uid_t>(uid);
    entry.pw_gid = static_cast<gid_t>(gid);
    entry.pw_gecos = fields.text(4);
    entry.pw_dir = fields.text(5);
    entry.pw_shell = fields.text(6);
    return true;
}

// name:password:last change:minimum:maximum:warning:inactivity:expiration:flag, the day counts
// empty or plain, the flag empty (the field is reserved; a line that uses it is left to the C
// library).  On success the entry points into `line`, split by `fields`.
inline bool parsePlainShadow(char* line, std::size_t size, struct spwd& entry, PlainShadowLine& fields) {
    long days[6] = {};
    if (!findPlainFields(line, size, fields) || fields.begin(8) != fields.finish(8)) return false;
    for (std::size_t i = 0; i < 6; ++i)
        if (!plainDays(fields.begin(i + 2), fields.finish(i + 2), days[i])) return false;
    fields.terminate();
    entry.sp_namp = fields.text(0);
    entry.sp_pwdp = fields.text(1);
    entry.sp_lstchg = days[0];
    entry.sp_min = days[1];
    entry.sp_max = days[2];
    entry.sp_warn = days[3];
    entry.sp_inact = days[4];
    entry.sp_expire = days[5];
    entry.sp_flag = ~0ul;
    return true;
}

// Whether two entries hold the same fields: the same strings (pointers) and the same numbers.
inline bool sameEntry(const struct passwd& a, const struct passwd& b) {
    return a.pw_name == b.pw_name && a.pw_passwd == b.pw_passwd && a.pw_uid == b.pw_uid && a.pw_gid == b.pw_gid &&
           a.pw_gecos == b.pw_gecos && a.pw_dir == b.pw_dir && a.pw_shell == b.pw_shell;
}
inline bool sameEntry(const struct spwd& a, const struct spwd& b) {
    return a.sp_namp == b.sp_namp && a.sp_pwdp == b.sp_pwdp && a.sp_lstchg == b.sp_lstchg && a.sp_min == b.sp_min &&
           a.sp_max == b.sp_max && a.sp_warn == b.sp_warn && a.sp_inact == b.sp_inact &&
           a.sp_expire == b.sp_expire && a.sp_flag == b.sp_flag;
}

// Appends `text` as one field; false, nothing appended, when it holds a ':' or a newline, which
// the C library's writers refuse or rewrite.
inline bool appendField(std::string& out, const char* text) {
    const std::size_t length = std::strcspn(text, ":\n");
    if (text[length] != '\0') return false;
    out.append(text, length);
    return true;
}

inline void appendDecimal(std::string& out, unsigned long value) {
    char digits[24];
    char* at = digits + sizeof digits;
    do {
        *--at = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    out.append(at, static_cast<std::size_t>(digits + sizeof digits - at));
}

inline void appendSigned(std::string& out, long value) {
    if (value < 0) {
        out += '-';
        appendDecimal(out, 0ul - static_cast<unsigned long>(value));
    } else {
        appendDecimal(out, static_cast<unsigned long>(value));
    }
}

// The line putpwent writes for `entry`, when it writes it unchanged: every text field present
// and without ':' or a newline, a name that does not start with '+' or '-' (which putpwent
// writes without ids).  Otherwise false, `out` as it was.
inline bool appendPlainPasswd(std::string& out, const struct passwd& entry) {
    const std::size_t start = out.size();
    const char* const name = entry.pw_name;
    if (name == nullptr || name[0] == '+' || name[0] == '-' || entry.pw_passwd == nullptr ||
        entry.pw_gecos == nullptr || entry.pw_dir == nullptr || entry.pw_shell == nullptr)
        return false;
    bool plain = appendField(out, name);
    out += ':';
    plain = plain && appendField(out, entry.pw_passwd);
    out += ':';
    appendDecimal(out, entry.pw_uid);
    out += ':';
    appendDecimal(out, entry.pw_gid);
    out += ':';
    plain = plain && appendField(out, entry.pw_gecos);
    out += ':';
    plain = plain && appendField(out, entry.pw_dir);
    out += ':';
    plain = plain && appendField(out, entry.pw_shell);
    out += '\n';
    if (!plain) out.resize(start);
    return plain;
}

// The line putspent writes for `entry`, when it writes it: a name present, name and password
// without ':' or a newline; day counts of -1 and a flag of ~0 empty.  Otherwise false, `out`
// as it was.
inline bool appendPlainShadow(std::string& out, const struct spwd& entry) {
    const std::size_t start = out.size();
    if (entry.sp_namp == nullptr) return false;
    bool plain = appendField(out, entry.sp_namp);
    out += ':';
    plain = plain && (entry.sp_pwdp == nullptr || appendField(out, entry.sp_pwdp));
    out += ':';
    for (const long days :
         {entry.sp_lstchg, entry.sp_min, entry.sp_max, entry.sp_warn, entry.sp_inact, entry.sp_expire}) {
        if (days != -1) appendSigned(out, days);
        out += ':';
    }
    // putspent prints the flag as a signed number.
    if (entry.sp_flag != ~0ul) appendSigned(out, static_cast<long>(entry.sp_flag));
    out += '\n';
    if (!plain) out.resize(start);
    return plain;
}

}  // namespace usermanagement::detail
