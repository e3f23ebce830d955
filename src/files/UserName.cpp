#include "files/UserName.h"

#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// The code point starting at name[at], advancing `at` past it; kInvalid for a byte sequence
// that is not the shortest UTF-8 form of a scalar value.
char32_t nextCodePoint(const std::string& name, std::size_t& at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(name[i]); };
    const unsigned char lead = byte(at++);
    if (lead < 0x80) return lead;
    std::size_t extra = 0;
    char32_t point = 0, least = 0;
    if ((lead & 0xE0) == 0xC0) {
        extra = 1, point = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2, point = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3, point = lead & 0x07, least = 0x10000;
    } else {
        return kInvalid;  // a continuation byte without a lead, or 0xF8..0xFF
    }
    for (; extra > 0; --extra, ++at) {
        if (at >= name.size() || (byte(at) & 0xC0) != 0x80) return kInvalid;
        point = (point << 6) | (byte(at) & 0x3F);
    }
    const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
    return point < least || surrogate || point > 0x10FFFF ? kInvalid : point;
}

bool isControl(char32_t point) { return point < 0x20 || (point >= 0x7F && point <= 0x9F); }

// The White_Space property of Unicode.
bool isWhitespace(char32_t point) {
    return point == ' ' || point == 0x85 || point == 0xA0 || point == 0x1680 || (point >= 0x2000 && point <= 0x200A) ||
           point == 0x2028 || point == 0x2029 || point == 0x202F || point == 0x205F || point == 0x3000;
}

}  // namespace

const char* userNameRefusal(const std::string& name) {
    if (name.empty()) return "empty";
    if (name.size() > kMaxUserName) return "longer than 32 bytes";
    // '~' too: shells read "~name" as that account's home, and the shadow tools (useradd, pwck,
    // grpck) refuse such a name, so a file holding one no longer passes their checks.
    if (name[0] == '+' || name[0] == '-' || name[0] == '~' || name[0] == '#')
        return "starts with '+', '-', '~' or '#'";
    if (name == "." || name == "..") return "is '.' or '..'";
    if (name.find_first_not_of("0123456789") == std::string::npos) return "all digits, like a uid";
    for (std::size_t at = 0; at < name.size();) {
        const char32_t point = nextCodePoint(name, at);
        if (point == kInvalid) return "not valid UTF-8";
        if (isControl(point) || point == ':') return "holds a NUL byte, ':', a newline or another control character";
        if (isWhitespace(point)) return "holds whitespace";
        if (point == '/' || point == ',') return "holds '/' or ','";
    }
    return nullptr;
}

void checkUserName(const std::string& name, const char* function) {
    if (const char* reason = userNameRefusal(name))
        throw UMException(UMError::BadUserName, concat(function, " error, bad user name").c_str(), reason,
                          umlog::Ctx::getCtx().getUsername(), true);
}

}  // namespace usermanagement::detail
