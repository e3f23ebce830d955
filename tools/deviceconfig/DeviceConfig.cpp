#include "DeviceConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include <systemutilities/LinuxUserSystem.h>

using usermanagement::UmGroup;
using usermanagement::UmProfile;
using usermanagement::UmRole;
using usermanagement::UserDefinition;

namespace tvc::deviceconfig {

namespace {

constexpr std::size_t kMaxLine = 1024;
constexpr std::size_t kMaxFile = 256 * 1024;
constexpr int kMaxLinks = 16;

[[noreturn]] void fail(const std::string& file, std::size_t line, const std::string& reason) {
    throw ConfigError(file + ":" + std::to_string(line) + ": " + reason);
}
[[noreturn]] void failFile(const std::string& file, const std::string& reason) {
    throw ConfigError(file + ": " + reason);
}
// "FILE: reason", or "FILE: PART: reason" when the part of the path at fault is another one.
[[noreturn]] void failPart(const std::string& file, const std::string& part, const std::string& reason) {
    failFile(file, part == file ? reason : part + ": " + reason);
}

// What a value must look like.
enum class Kind { Number, Flag, Path, Service, Group, Gecos, Command };

struct Key {
    const char* name;
    Kind kind;
    long long low, high;  // Number only
    std::optional<long long> Settings::*number;
    std::optional<bool> Settings::*flag;
    std::optional<std::string> Settings::*text;
};

constexpr Key number(const char* name, long long low, long long high, std::optional<long long> Settings::*to) {
    return {name, Kind::Number, low, high, to, nullptr, nullptr};
}
constexpr Key flag(const char* name, std::optional<bool> Settings::*to) {
    return {name, Kind::Flag, 0, 0, nullptr, to, nullptr};
}
constexpr Key text(const char* name, Kind kind, std::optional<std::string> Settings::*to) {
    return {name, kind, 0, 0, nullptr, nullptr, to};
}

// -1 is the library's "never" for the failed-login limit and the password ages.
const Key kSettings[] = {
    number("maxUser", 1, 60000, &Settings::maxUser),
    number("baseUid", 1000, 4000000000LL, &Settings::baseUid),
    text("userShell", Kind::Path, &Settings::userShell),
    text("userHome", Kind::Path, &Settings::userHome),
    text("userGecos", Kind::Gecos, &Settings::userGecos),
    text("webPam", Kind::Service, &Settings::webPam),
    text("passwordPam", Kind::Service, &Settings::passwordPam),
    text("tallyFilePath", Kind::Path, &Settings::tallyFilePath),
    text("userManagerRole", Kind::Group, &Settings::userManagerRole),
    text("selfAccountRole", Kind::Group, &Settings::selfAccountRole),
    number("dbLockCount", -1, 1000, &Settings::dbLockCount),
    number("passwordMaxAge", -1, 99999, &Settings::passwordMaxAge),
    number("passwordMinAge", -1, 99999, &Settings::passwordMinAge),
    number("passwordInactivityDays", -1, 99999, &Settings::passwordInactivityDays),
    flag("passwordAgeExemptsBaseUser", &Settings::passwordAgeExemptsBaseUser),
    number("dbDelayWrongCredential", 0, 600, &Settings::dbDelayWrongCredential),
    number("dbPasswordMaxLen", 8, 4096, &Settings::dbPasswordMaxLen),
    text("passwordFilePath", Kind::Path, &Settings::passwordFilePath),
    text("passwordTmpFilePath", Kind::Path, &Settings::passwordTmpFilePath),
    text("shadowFilePath", Kind::Path, &Settings::shadowFilePath),
    text("shadowTmpFilePath", Kind::Path, &Settings::shadowTmpFilePath),
    text("groupFilePath", Kind::Path, &Settings::groupFilePath),
    text("groupTmpFilePath", Kind::Path, &Settings::groupTmpFilePath),
    flag("rootProfile", &Settings::rootProfile),
    text("updateFileScript", Kind::Command, &Settings::updateFileScript),
};

// A name the group file can hold as a group name (and that no tool reads as an option).
bool isGroupName(const std::string& name) {
    if (name.empty() || name.size() > 32 || name[0] == '-') return false;
    for (const char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') return false;
    return true;
}

// The length of the valid UTF-8 sequence at `at`, 0 when none starts there.
std::size_t utf8Length(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const unsigned int lead = byte(at);
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    unsigned int low = 0x80, high = 0xbf;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : low;    // overlong
        high = lead == 0xed ? 0x9f : high;  // surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : low;    // overlong
        high = lead == 0xf4 ? 0x8f : high;  // beyond U+10FFFF
    } else {
        return 0;
    }
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
    return length;
}

std::string trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

class Parser {
public:
    explicit Parser(const std::string& name) : m_name(name) {}

    DeviceConfiguration parse(const std::string& text) {
        if (text.size() > kMaxFile) failFile(m_name, "larger than " + std::to_string(kMaxFile) + " bytes");
        std::size_t begin = 0;
        while (begin < text.size()) {
            std::size_t end = text.find('\n', begin);
            if (end == std::string::npos) end = text.size();
            ++m_line;
            line(text.substr(begin, end - begin));
            begin = end + 1;
        }
        finish();
        return m_result;
    }

private:
    enum class Section { None, Settings, Role, Profile };

    [[noreturn]] void fail(const std::string& reason) const { deviceconfig::fail(m_name, m_line, reason); }

    void line(const std::string& raw) {
        if (raw.size() > kMaxLine) fail("line longer than " + std::to_string(kMaxLine) + " bytes");
        for (std::size_t i = 0; i < raw.size();) {
            const unsigned char c = static_cast<unsigned char>(raw[i]);
            if (c == 0) fail("NUL byte");
            if ((c < 0x20 && c != '\t') || c == 0x7f) fail("control character");
            const std::size_t length = utf8Length(raw, i);
            if (length == 0) fail("not valid UTF-8 text");
            i += length;
        }
        const std::string content = trimmed(raw);
        if (content.empty() || content[0] == '#') return;
        if (content[0] == '[') return header(content);
        const std::size_t equals = content.find('=');
        if (equals == std::string::npos) fail("expected [SECTION] or KEY = VALUE");
        const std::string key = trimmed(content.substr(0, equals));
        std::string value = trimmed(content.substr(equals + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
            if (value.find('"') != std::string::npos) fail("a quote inside a quoted value");
        } else if (value.find('"') != std::string::npos) {
            fail("a quote that does not enclose the whole value");
        }
        if (m_section == Section::None) fail("key outside a section: " + key);
        if (!m_keys.emplace(key, m_line).second)
            fail("duplicate key " + key + " (line " + std::to_string(m_keys[key]) + ")");
        if (m_section == Section::Settings) return setting(key, value);
        if (m_section == Section::Role) {
            if (key != "grants") fail("unknown key in a role: " + key);
            m_result.roles.back().grants = list(value, "granted group");
            return;
        }
        Profile& profile = m_result.profiles.back();
        if (key == "id") {
            const long long id = numberIn(value, INT_MIN, INT_MAX);
            const auto [at, fresh] = m_profileIds.emplace(id, m_line);
            if (!fresh) fail("duplicate profile id " + value + " (line " + std::to_string(at->second) + ")");
            profile.id = static_cast<int>(id);
        } else if (key == "roles") {
            profile.roles = list(value, "role");
            m_roleUses.emplace_back(m_line, profile.roles);
        } else if (key == "shell") {
            checkText(value, Kind::Path);
            profile.shell = value;
        } else {
            fail("unknown key in a profile: " + key);
        }
    }

    void header(const std::string& content) {
        closeSection();
        if (content.back() != ']') fail("unterminated section header");
        const std::string inside = trimmed(content.substr(1, content.size() - 2));
        const std::size_t blank = inside.find_first_of(" \t");
        const std::string kind = inside.substr(0, blank);
        const std::string name = blank == std::string::npos ? "" : trimmed(inside.substr(blank));
        m_keys.clear();
        m_sectionLine = m_line;
        if (kind == "settings" && name.empty()) {
            if (m_settingsLine != 0) fail("duplicate section settings (line " + std::to_string(m_settingsLine) + ")");
            m_settingsLine = m_line;
            m_section = Section::Settings;
            return;
        }
        if ((kind != "role" && kind != "profile") || name.empty()) fail("unknown section: " + content);
        if (!isGroupName(name)) fail("not a group name: " + name);
        const auto [at, fresh] = (kind == "role" ? m_roleLines : m_profileLines).emplace(name, m_line);
        if (!fresh) fail("duplicate " + kind + " " + name + " (line " + std::to_string(at->second) + ")");
        if (kind == "role") {
            m_section = Section::Role;
            m_result.roles.push_back(Role{name, {}});
        } else {
            m_section = Section::Profile;
            m_result.profiles.push_back(Profile{name, 0, {}, ""});
        }
    }

    void setting(const std::string& key, const std::string& value) {
        for (const Key& known : kSettings) {
            if (key != known.name) continue;
            if (known.kind == Kind::Number) {
                m_result.settings.*known.number = numberIn(value, known.low, known.high);
            } else if (known.kind == Kind::Flag) {
                if (value != "true" && value != "false") fail("not true or false: " + value);
                m_result.settings.*known.flag = value == "true";
            } else {
                checkText(value, known.kind);
                m_result.settings.*known.text = value;
            }
            return;
        }
        fail("unknown setting: " + key);
    }

    long long numberIn(const std::string& value, long long low, long long high) const {
        const std::size_t digits = value.size() - (value.rfind('-', 0) == 0 ? 1 : 0);
        if (digits == 0 || digits > 12 || value.find_first_not_of("0123456789", value.size() - digits) != std::string::npos)
            fail("not a whole number: " + value);
        const long long number = std::stoll(value);
        if (number < low || number > high)
            fail(value + " is out of range " + std::to_string(low) + ".." + std::to_string(high));
        return number;
    }

    void checkText(const std::string& value, Kind kind) const {
        if (value.empty()) fail("empty value");
        if (kind == Kind::Path && value[0] != '/') fail("not an absolute path: " + value);
        // A path goes into the account files (':' separates their fields) and, for the account
        // files themselves, unquoted onto the update command's shell line: a blank, a quote, ';'
        // or '$' there would split or run as a command.  So a path holds only these characters.
        if (kind == Kind::Path &&
            value.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._+-") !=
                std::string::npos)
            fail("a path may hold only letters, digits and / . _ + -: " + value);
        // The library appends the two paths to the command as they are.
        if (kind == Kind::Command && value.back() != ' ')
            fail("the update command must end with a blank (quote the value): " + value);
        if (kind == Kind::Group && !isGroupName(value)) fail("not a group name: " + value);
        if (kind == Kind::Service && !isGroupName(value)) fail("not a PAM service name: " + value);
        // The account files separate fields with ':' and the gecos subfields with ','.
        if (kind == Kind::Gecos && value.find_first_of(":,") != std::string::npos)
            fail("':' or ',' in the gecos field: " + value);
    }

    std::vector<std::string> list(const std::string& value, const char* what) const {
        std::vector<std::string> names;
        if (value.empty()) return names;
        std::size_t begin = 0;
        for (;;) {
            const std::size_t comma = value.find(',', begin);
            const std::string name = trimmed(value.substr(begin, comma - begin));
            if (!isGroupName(name)) fail(std::string("not a ") + what + " name: '" + name + "'");
            for (const std::string& seen : names)
                if (seen == name) fail(std::string("duplicate ") + what + " " + name);
            names.push_back(name);
            if (comma == std::string::npos) return names;
            begin = comma + 1;
        }
    }

    void closeSection() {
        if (m_section == Section::Profile && m_keys.count("id") == 0) {
            m_line = m_sectionLine;
            fail("profile " + m_result.profiles.back().name + " has no id");
        }
    }

    void finish() {
        closeSection();
        for (const auto& [line, roles] : m_roleUses)
            for (const std::string& role : roles)
                if (m_roleLines.count(role) == 0) deviceconfig::fail(m_name, line, "no role " + role);
    }

    const std::string m_name;
    std::size_t m_line = 0, m_sectionLine = 0, m_settingsLine = 0;
    Section m_section = Section::None;
    std::map<std::string, std::size_t> m_keys, m_roleLines, m_profileLines;
    std::map<long long, std::size_t> m_profileIds;
    std::vector<std::pair<std::size_t, std::vector<std::string>>> m_roleUses;
    DeviceConfiguration m_result;
};

// The file decides who may do what on the device: which groups make an account a user manager,
// where the account files are, which command installs them as root.  Whoever can change it, or
// put another file in its place, gets the rights of root through umctl and the web host.  So a
// process running as root reads it only when root alone can have written it: the file and every
// directory on the way to it belong to root and no other account may write them (a root-owned
// directory with the sticky bit, such as /tmp, lets no other account replace root's entries and
// passes).  A symlink on the way is followed when it belongs to root: its target is walked the
// same way, so a link passes only where a copy of its target would.  ACLs are not looked at.
void checkOwnership(const std::string& path, const struct stat& status, const std::string& file) {
    if (status.st_uid != 0) failPart(file, path, "not owned by root");
    // A symlink's own mode means nothing: whoever may write its directory may replace it.
    const bool exempt = S_ISLNK(status.st_mode) || (S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX));
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) && !exempt)
        failPart(file, path, "writable by accounts other than root");
}

// The final path of `path` after walking it as described above; refusals name `file`.
std::string walkTrusted(const std::string& path, const std::string& file) {
    std::string pending = path;
    if (pending.empty() || pending[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr) failFile(file, std::string("cannot resolve: ") + std::strerror(errno));
        pending = std::string(cwd) + "/" + pending;
    }
    std::string done;  // resolved so far, "" standing for "/"
    int links = 0;
    struct stat status {};
    if (lstat("/", &status) != 0) failFile(file, "cannot inspect /");
    checkOwnership("/", status, file);
    while (!pending.empty()) {
        const std::size_t start = pending.find_first_not_of('/');
        if (start == std::string::npos) break;
        const std::size_t end = pending.find('/', start);
        const std::string part = pending.substr(start, end - start);
        pending = end == std::string::npos ? "" : pending.substr(end);
        if (part == ".") continue;
        if (part == "..") {
            done = done.substr(0, done.rfind('/'));
            continue;
        }
        const std::string next = done + "/" + part;
        if (lstat(next.c_str(), &status) != 0) failPart(file, next, std::strerror(errno));
        checkOwnership(next, status, file);
        if (S_ISLNK(status.st_mode)) {
            if (++links > kMaxLinks) failFile(file, "too many symbolic links");
            std::string target(PATH_MAX, '\0');
            const ssize_t length = readlink(next.c_str(), &target[0], target.size());
            if (length < 0) failPart(file, next, std::strerror(errno));
            target.resize(static_cast<std::size_t>(length));
            if (target[0] == '/') done.clear();
            pending = target + "/" + pending;
            continue;
        }
        done = next;
    }
    return done.empty() ? "/" : done;
}

// A missing file means the library's defaults, but only where no other account can have
// removed it: the nearest directory above it that exists must pass the same walk.  Otherwise
// whoever may write that directory could turn the device back to the defaults (no failed-login
// limit, the built-in catalogue) by deleting the file.
std::string parentOf(const std::string& path) {
    const std::size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return "/";
    const std::size_t slash = path.rfind('/', end);
    if (slash == std::string::npos) return ".";
    const std::size_t keep = path.find_last_not_of('/', slash);
    return keep == std::string::npos ? "/" : path.substr(0, keep + 1);
}

void checkAbsenceTrusted(const std::string& path) {
    struct stat status {};
    std::string dir = parentOf(path);
    while (dir != "/" && dir != "." && lstat(dir.c_str(), &status) != 0 && errno == ENOENT) dir = parentOf(dir);
    walkTrusted(dir, path);
}

}  // namespace

DeviceConfiguration parseDeviceConfiguration(const std::string& text, const std::string& name) {
    return Parser(name).parse(text);
}

DeviceConfiguration readDeviceConfiguration(const std::string& path) {
    const bool root = geteuid() == 0;
    const std::string target = root ? walkTrusted(path, path) : path;
    const int fd = open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (root ? O_NOFOLLOW : 0));
    if (fd < 0) failFile(path, std::strerror(errno));
    struct stat status {};
    std::string text, failure;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        failure = "not a regular file";
    } else {
        // One byte more than allowed, so that a file too large is told from one just large enough.
        text.resize(kMaxFile + 1);
        std::size_t got = 0;
        while (got < text.size()) {
            const ssize_t n = read(fd, &text[got], text.size() - got);
            if (n == 0) break;
            if (n > 0) got += static_cast<std::size_t>(n);
            else if (errno != EINTR) failure = std::strerror(errno), got = text.size();
        }
        text.resize(got);
    }
    close(fd);
    if (!failure.empty()) failFile(path, failure);
    // The walk judged the file by its name; this is the file that was read.
    if (root) checkOwnership(target, status, path);
    return parseDeviceConfiguration(text, path);
}

ConfiguredDefinition::ConfiguredDefinition(std::shared_ptr<const DeviceConfiguration> configuration)
    : m_configuration(std::move(configuration)) {}

#define TVC_SETTING(getter, type, member)                                            \
    type ConfiguredDefinition::getter() {                                            \
        const auto& value = m_configuration->settings.member;                        \
        return value ? static_cast<type>(*value) : UserDefinition::getter();         \
    }
#define TVC_TEXT_SETTING(getter, type, member)                                       \
    type ConfiguredDefinition::getter() {                                            \
        const auto& value = m_configuration->settings.member;                        \
        return value ? static_cast<type>(value->c_str()) : UserDefinition::getter(); \
    }
TVC_SETTING(getMaxUser, unsigned int, maxUser)
TVC_SETTING(getBaseUid, unsigned int, baseUid)
TVC_SETTING(getDBDelayWrongCredential, unsigned int, dbDelayWrongCredential)
TVC_SETTING(getDBPasswordMaxLen, unsigned int, dbPasswordMaxLen)
TVC_SETTING(hasRootProfile, bool, rootProfile)
TVC_TEXT_SETTING(getUserHome, const char*, userHome)
TVC_TEXT_SETTING(getUserGecos, const char*, userGecos)
TVC_TEXT_SETTING(getWebPam, std::string, webPam)
TVC_TEXT_SETTING(getPasswordPam, std::string, passwordPam)
TVC_TEXT_SETTING(getTallyFilePath, std::string, tallyFilePath)
TVC_TEXT_SETTING(getUserManagerRole, std::string, userManagerRole)
TVC_TEXT_SETTING(getSelfAccountRole, std::string, selfAccountRole)
TVC_TEXT_SETTING(getPasswordFilePath, const char*, passwordFilePath)
TVC_TEXT_SETTING(getPasswordTmpFilePath, const char*, passwordTmpFilePath)
TVC_TEXT_SETTING(getShadowFilePath, const char*, shadowFilePath)
TVC_TEXT_SETTING(getShadowTmpFilePath, const char*, shadowTmpFilePath)
TVC_TEXT_SETTING(getGroupFilePath, const char*, groupFilePath)
TVC_TEXT_SETTING(getGroupTmpFilePath, const char*, groupTmpFilePath)
TVC_TEXT_SETTING(getUpdateFileScript, const char*, updateFileScript)
#undef TVC_SETTING
#undef TVC_TEXT_SETTING

// The shell of the profile whose group is `gid`, else the userShell setting, else the default.
// The library's lookup, not a fixed buffer: the group file's lines can be longer than any buffer
// chosen here, and a lookup that ran out of room would read as "no such group".
const char* ConfiguredDefinition::getUserShell(unsigned int gid) {
    std::string name;
    if (systemutilities::LinuxUserSystem::getGroupName(gid, name))
        for (const Profile& profile : m_configuration->profiles)
            if (profile.name == name && !profile.shell.empty()) return profile.shell.c_str();
    const auto& shell = m_configuration->settings.userShell;
    return shell ? shell->c_str() : UserDefinition::getUserShell(gid);
}

void ConfiguredDefinition::getDBLockCount(int& count) {
    UserDefinition::getDBLockCount(count);
    if (const auto& limit = m_configuration->settings.dbLockCount) count = static_cast<int>(*limit);
}

void ConfiguredDefinition::getDBPasswordExpirationAge(int& maxAge, int& minAge, int& thirdAge, bool& exemptBaseUser) {
    UserDefinition::getDBPasswordExpirationAge(maxAge, minAge, thirdAge, exemptBaseUser);
    const Settings& s = m_configuration->settings;
    if (s.passwordMaxAge) maxAge = static_cast<int>(*s.passwordMaxAge);
    if (s.passwordMinAge) minAge = static_cast<int>(*s.passwordMinAge);
    if (s.passwordInactivityDays) thirdAge = static_cast<int>(*s.passwordInactivityDays);
    if (s.passwordAgeExemptsBaseUser) exemptBaseUser = *s.passwordAgeExemptsBaseUser;
}

ConfiguredCatalogue::ConfiguredCatalogue(std::shared_ptr<const DeviceConfiguration> configuration)
    : m_configuration(std::move(configuration)) {}

namespace {

// Through the library's lookup, as getUserShell: a long line anywhere before the group in the
// group file must not make the group, and its profile, disappear.
bool hasGroup(const std::string& name) {
    unsigned int gid = 0;
    return systemutilities::LinuxUserSystem::getGroupGid(name.c_str(), gid);
}

}  // namespace

void ConfiguredCatalogue::buildProfiles() {
    // Everything is resolved before the tables are touched: a role or granted group missing
    // from the device throws here and leaves the catalogue that was in place.
    std::map<std::string, UmRole> roles;
    for (const Role& described : m_configuration->roles) {
        UmRole role(described.name, -1);
        for (const std::string& granted : described.grants) role.add(UmGroup(granted));
        roles.emplace(described.name, role);
    }
    std::vector<UmProfile> profiles;
    for (const Profile& described : m_configuration->profiles) {
        // The device offers the profiles whose group it has: a software version that drops a
        // profile group (see the migration) drops the profile with it.
        if (!hasGroup(described.name)) continue;
        UmProfile profile(described.name, described.id);
        for (const std::string& role : described.roles) profile.add(roles.at(role));
        profiles.push_back(profile);
    }

    std::lock_guard<std::mutex> lock(m_mtx);
    g_profiles.clear();
    g_roles.clear();
    for (UmProfile& entry : profiles) addProfile(entry);
    m_init = true;
}

void installDeviceConfiguration(const std::string& path, bool required) {
    struct stat status {};
    if (!required && lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
        if (geteuid() == 0) checkAbsenceTrusted(path);
        return;
    }
    const auto configuration = std::make_shared<const DeviceConfiguration>(readDeviceConfiguration(path));
    // Installed for the rest of the process: the library keeps only their addresses, so they
    // are never destroyed, and kept in a list that is not either (a leak checker sees them held
    // even after a test has put other providers back).
    static std::mutex mutex;
    static auto* const installed = new std::vector<std::shared_ptr<void>>;
    auto definition = std::make_shared<ConfiguredDefinition>(configuration);
    auto catalogue = std::make_shared<ConfiguredCatalogue>(configuration);
    std::lock_guard<std::mutex> lock(mutex);
    installed->push_back(definition);
    installed->push_back(catalogue);
    definition->setUserDefinition(*definition);
    catalogue->setProfileDefinition(*catalogue);
    // A catalogue built before (the built-in one) is not this device's: the next use builds.
    usermanagement::ProfileDefinition::m_init = false;
}

}  // namespace tvc::deviceconfig
