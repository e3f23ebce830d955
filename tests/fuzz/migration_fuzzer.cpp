// The file step of the migration over any live and reference account files.
//
// Input: the files passwd, shadow, group, passwd.orig, shadow.orig, group.orig and, when a
// seventh piece is there, gshadow, separated by the byte 0x01.  Each input writes them afresh:
// the live files in /etc/fzmig (the configuration below points there), the reference copies
// at their fixed places in /etc (the sandbox's /etc is a throw-away overlay).
//
// Oracle: no crash, and either
//   - the run is refused with a library exception (UMException and its kin, carrying a code)
//     and every live file is byte for byte what it was; or
//   - `pwck -q -r passwd shadow` and `grpck -r group [gshadow]` accept the files written, no
//     temporary file is left, and every managed account of the live passwd file is in the new
//     one with its uid, group, gecos, home and its profile's shell, and the password field of
//     its first live shadow entry.
// pwck runs with -q: its other checks (the home exists, the group and the shell are known)
// are about the machine it runs on, not about the files.  grpck has no such switch; its
// complaints about members unknown to the machine's passwd database are ignored the same way,
// any other complaint or exit status fails.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "accounts/MigrationFiles.h"
#include "system/ReadToEnd.h"

namespace {

using usermanagement::UserDefinition;

const std::string kDir = "/etc/fzmig/";

class Configuration : public UserDefinition {
public:
    const char* getPasswordFilePath() override { return "/etc/fzmig/passwd"; }
    const char* getPasswordTmpFilePath() override { return "/etc/fzmig/tmppasswd"; }
    const char* getShadowFilePath() override { return "/etc/fzmig/shadow"; }
    const char* getShadowTmpFilePath() override { return "/etc/fzmig/tmpshadow"; }
    const char* getGroupFilePath() override { return "/etc/fzmig/group"; }
    const char* getGroupTmpFilePath() override { return "/etc/fzmig/tmpgroup"; }
    void checkRight(Action, usermanagement::User*) override {}
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts(1);
    for (char c : text)
        if (c == separator) parts.emplace_back(); else parts.back() += c;
    return parts;
}

// The lines of a file as fields; lines that do not have `fields` fields are left out.
std::vector<std::vector<std::string>> entries(const std::string& text, std::size_t fields) {
    std::vector<std::vector<std::string>> result;
    for (std::string& line : split(text, '\n')) {
        std::vector<std::string> parts = split(line, ':');
        if (parts.size() == fields) result.push_back(std::move(parts));
    }
    return result;
}

// A decimal id as the C library reads it, or -1.
long long idOf(const std::string& field) {
    if (field.empty() || field.size() > 10 || field.find_first_not_of("0123456789") != std::string::npos) return -1;
    return std::stoll(field);
}

// Exit status of `command`, its output in `output`.
int run(const std::string& command, std::string& output) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) std::abort();  // the checker itself cannot run
    // libFuzzer's timer signal interrupts reads: the library's reader reads on to the end.
    usermanagement::detail::readToEnd(pipe, &output);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool grpckAccepts(const std::string& command, std::string& output) {
    const int status = run(command, output);
    output.insert(0, "status " + std::to_string(status) + "\n");
    if (status == 0) return true;
    if (status != 2) return false;
    const auto has = [](const std::string& line, const char* part) { return line.find(part) != std::string::npos; };
    for (const std::string& line : split(output, '\n')) {
        const bool ignored = line.empty() || line.rfind("status ", 0) == 0 || line == "grpck: no changes" ||
                             line.rfind("delete member '", 0) == 0 ||
                             line.rfind("delete administrative member '", 0) == 0 ||
                             ((line.rfind("group ", 0) == 0 || line.rfind("shadow group ", 0) == 0) &&
                              (has(line, ": no user ") || has(line, ": no administrative user "))) ||
                             // a warning, which alone exits 0
                             (has(line, " is a member of the ") && has(line, " but not in "));
        if (!ignored) return false;
    }
    return true;
}

// The files under /etc the process has open: what the migration opens (the account files,
// their temporary copies, the lock).  Descriptors elsewhere belong to the fuzzing run itself
// (the sanitizer runtime reads /proc, libFuzzer writes its corpus) and are not counted.
std::string openEtcFiles() {
    std::string files;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(dir)) {
            char target[4096];
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
            if (length > 0 && std::strncmp(target, "/etc/", 5) == 0)
                files += std::string(target, static_cast<std::size_t>(length)) + "\n";
        }
        closedir(dir);
    }
    return files;
}

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "migration_fuzzer: %s\n%s\n", what, detail.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Configuration configuration;
    static const bool installed = (configuration.setUserDefinition(configuration), mkdir(kDir.c_str(), 0755), true);
    (void)installed;

    std::vector<std::string> pieces = split(std::string(reinterpret_cast<const char*>(data), size), '\x01');
    if (pieces.size() < 6) return 0;
    const bool gshadow = pieces.size() >= 7;
    const char* const live[] = {"passwd", "shadow", "group", "gshadow"};
    for (const char* name : live) unlink((kDir + name).c_str());
    for (int i = 0; i < 3; ++i) writeFile(kDir + live[i], pieces[i]);
    if (gshadow) writeFile(kDir + "gshadow", pieces[6]);
    for (int i = 3; i < 6; ++i) writeFile(std::string("/etc/") + live[i - 3] + ".orig", pieces[i]);

    // Whatever the outcome, the run closes what it opened.
    static const std::string before = openEtcFiles();
    struct Leak {
        ~Leak() {
            if (const std::string now = openEtcFiles(); now != before) fail("file left open", now);
        }
    } leak;
    try {
        (void)usermanagement::detail::migrateAccountFiles();
    } catch (const usermanagement::UMException& refusal) {
        // Nothing else holds the lock: a refusal for it means an earlier input kept it.
        if (refusal.getErrorId() == 11) fail("password-file lock not released", refusal.what());
        // Refused: nothing of the device may have changed.
        for (int i = 0; i < 4; ++i) {
            if (i == 3 && !gshadow) continue;
            if (readFile(kDir + live[i]) != pieces[i == 3 ? 6 : i]) fail("refused, yet changed", live[i]);
        }
        return 0;
    }

    for (const char* name : {"tmppasswd", "tmpshadow", "tmpgroup", "tmpgshadow"})
        if (access((kDir + name).c_str(), F_OK) == 0) fail("temporary file left", name);

    std::string output;
    if (const int status = run("pwck -q -r " + kDir + "passwd " + kDir + "shadow", output); status != 0)
        fail("pwck refuses the passwd and shadow files written",
             "status " + std::to_string(status) + "\n" + output + readFile(kDir + "passwd") + "--\n" +
                 readFile(kDir + "shadow"));
    output.clear();
    if (!grpckAccepts("grpck -r " + kDir + "group" + (gshadow ? " " + kDir + "gshadow" : std::string()), output))
        fail("grpck refuses the group files written", output + readFile(kDir + "group"));

    // Every managed account carried over with its shadow password.
    const auto newPasswd = entries(readFile(kDir + "passwd"), 7);
    const auto newShadow = entries(readFile(kDir + "shadow"), 9);
    const auto oldShadow = entries(pieces[1], 9);
    const long long base = configuration.getBaseUid(), count = configuration.getMaxUser();
    for (const auto& account : entries(pieces[0], 7)) {
        const long long uid = idOf(account[2]);
        if (uid < base || uid >= base + count || idOf(account[3]) < 0) continue;
        bool found = false;
        for (const auto& entry : newPasswd)
            found = found || (entry[0] == account[0] && idOf(entry[2]) == uid && idOf(entry[3]) == idOf(account[3]) &&
                              entry[4] == account[4] && entry[5] == account[5] &&
                              entry[6] == configuration.getUserShell(static_cast<unsigned int>(idOf(account[3]))));
        if (!found) fail("managed account lost", account[0]);
        for (const auto& old : oldShadow) {
            if (old[0] != account[0]) continue;
            bool kept = false;
            for (const auto& entry : newShadow) kept = kept || (entry[0] == old[0] && entry[1] == old[1]);
            if (!kept) fail("managed account lost its password", account[0]);
            break;
        }
    }
    return 0;
}
