// The user-name check and the failed-login reset's command line.
//
// Input: one byte N, then the tally file path (the next N bytes, fewer when the input ends),
// then the user name (the rest).
//
// Oracle:
//   1. userNameRefusal() refuses a name exactly when UserName.h's list says so; that list is
//      checked here on its own terms: the bytes decoded by the C library's converter (iconv),
//      the code points compared with Unicode's White_Space set and the control ranges.
//   2. tallyResetCommand() refuses (UMException 7) a path or a name holding a NUL byte and
//      nothing else.
//   3. For every accepted name, the command line run by the real "/bin/sh -c" reaches a
//      stand-in pam_tally2 (first on PATH, in a directory of this process) with exactly the
//      arguments -f, the path, -r, -u, the name: one argument each, byte for byte.  The
//      stand-in writes its arguments to standard output, each ended by a NUL byte.
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <usermanagement/UMException.h>

#include "accounts/TallyCommand.h"
#include "files/UserName.h"
#include "system/ReadToEnd.h"

namespace {

using usermanagement::detail::kMaxUserName;

// A directory of this process holding the stand-in, put first on PATH once.
void installStandIn() {
    static const bool done = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/unlock-fuzz-XXXXXX";
        if (mkdtemp(dir.data()) == nullptr) std::abort();  // no place for the stand-in
        const std::string tool = dir + "/pam_tally2";
        FILE* script = std::fopen(tool.c_str(), "w");
        if (script == nullptr) std::abort();
        std::fputs("#!/bin/sh\nexec /usr/bin/printf '%s\\0' \"$@\"\n", script);
        std::fclose(script);
        if (chmod(tool.c_str(), 0700) != 0) std::abort();
        const char* path = std::getenv("PATH");
        setenv("PATH", (dir + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
        static const std::string cleanup = tool, folder = dir;
        std::atexit([] {
            unlink(cleanup.c_str());
            rmdir(folder.c_str());
        });
        return true;
    }();
    (void)done;
}

// The code points of `text`, or false when the C library's UTF-8 converter refuses it.
bool decode(const std::string& text, std::vector<char32_t>& points) {
    static const iconv_t converter = iconv_open("UTF-32LE", "UTF-8");
    if (converter == reinterpret_cast<iconv_t>(-1)) std::abort();
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    std::string in = text;
    std::vector<char> out(4 * text.size() + 4);
    char* inAt = in.data();
    char* outAt = out.data();
    std::size_t inLeft = in.size(), outLeft = out.size();
    if (iconv(converter, &inAt, &inLeft, &outAt, &outLeft) == static_cast<std::size_t>(-1)) return false;
    for (char* at = out.data(); at < outAt; at += 4) {
        char32_t point = 0;
        for (int i = 3; i >= 0; --i) point = (point << 8) | static_cast<unsigned char>(at[i]);
        points.push_back(point);
    }
    return true;
}

bool whiteSpace(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// Whether UserName.h's list refuses `name`.
bool listRefuses(const std::string& name) {
    if (name.empty() || name.size() > kMaxUserName) return true;
    if (name[0] == '+' || name[0] == '-' || name[0] == '~' || name[0] == '#' || name == "." || name == "..") return true;
    if (name.find_first_not_of("0123456789") == std::string::npos) return true;
    std::vector<char32_t> points;
    if (!decode(name, points)) return true;
    for (const char32_t c : points)
        if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == ':' || c == '/' || c == ',' || whiteSpace(c) || c > 0x10FFFF ||
            (c >= 0xD800 && c <= 0xDFFF))
            return true;
    return false;
}

// What the stand-in received from the shell for `command`, NUL-separated.
std::string runThroughShell(const std::string& command) {
    FILE* stream = popen(command.c_str(), "r");
    if (stream == nullptr) std::abort();  // the shell did not start
    std::string received;
    // libFuzzer's timer signal interrupts reads: the library's reader reads on to the end.
    usermanagement::detail::readToEnd(stream, &received);
    if (const int status = pclose(stream); status != 0) {
        std::fprintf(stderr, "pclose: status %d, errno %d\n", status, errno);
        std::abort();  // the stand-in did not run or failed
    }
    return received;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t pathSize = std::min<std::size_t>(data[0], size - 1);
    const std::string path(reinterpret_cast<const char*>(data) + 1, pathSize);
    const std::string name(reinterpret_cast<const char*>(data) + 1 + pathSize, size - 1 - pathSize);

    const char* refusal = usermanagement::detail::userNameRefusal(name);
    if ((refusal != nullptr) != listRefuses(name)) {
        std::fprintf(stderr, "name check disagrees with its list (refusal: %s)\n", refusal ? refusal : "none");
        std::abort();
    }

    std::string command;
    bool refused = false;
    try {
        command = usermanagement::detail::tallyResetCommand(path, name);
    } catch (usermanagement::UMException& e) {
        if (e.getErrorId() != usermanagement::UMError::BadUserName) std::abort();
        refused = true;
    }
    const bool holdsNul = path.find('\0') != std::string::npos || name.find('\0') != std::string::npos;
    if (refused != holdsNul) std::abort();  // refused exactly the text the command line cannot hold
    if (refused || refusal != nullptr) return 0;

    installStandIn();
    const std::string expected = std::string("-f") + '\0' + path + '\0' + "-r" + '\0' + "-u" + '\0' + name + '\0';
    const std::string received = runThroughShell(command);
    if (received != expected) {
        std::fprintf(stderr, "command: %s\nreceived %zu bytes, expected %zu\n", command.c_str(), received.size(),
                     expected.size());
        std::abort();  // the shell split, expanded or changed the path or the name
    }
    return 0;
}
