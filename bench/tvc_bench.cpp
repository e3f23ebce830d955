// tvc_bench: what an account-file rewrite costs.
//
//   BM_CryptPwd          one SHA-512 crypt hash with a fresh salt.
//   BM_AddRemove/N       one account added and removed again on a passwd and a shadow file of
//                        N entries each: two complete transactions per file (lock, prepare,
//                        copy every entry, flush, fsync, rename, directory sync, unlock).
//   BM_CopyAndSync/N     the baseline: the same bytes copied with read/write and fsynced, as
//                        often as BM_AddRemove rewrites them, without parsing anything.
//
// What reading an account costs:
//
//   BM_CheckRight/C/N      one ReadUser rights check with the benchmark thread running as
//                          account C (admin: a user manager by its profile; root).
//   BM_UserUpdateState/N   User("admin") (lookup, profile, rights check) and updateState()
//                          (rights check, tally, password-file lock, shadow entry).
//
// The account operations against Debian's shadow-utils, on the same files (the sandbox's /etc
// with N filler accounts behind the sample device's; real time, the tools being processes):
//
//   BM_CreateRemove/N          createUserWithEncryptedPassword + removeUser (no password rules).
//   BM_UseraddUserdel/N        useradd -M -N -p HASH + userdel.
//   BM_CreateRemovePlaintext/C/N  createUser with a plaintext password + removeUser; C is
//                              skip_check or pam_check (the password rules through PAM first).
//   BM_Reset/N                 updateAnyUserPassword (plaintext, crypt, tally reset).
//   BM_ResetStoredHash/N       updateUserWithEncryptedPassword (hash given, tally reset).
//   BM_ResetShadowEntry/N      the shadow transaction of a reset alone, hash given.
//   BM_Chpasswd/V/N            chpasswd -c SHA512 or -e (V: sha512, encrypted), alone or
//                              followed by the tally reset (_tally).
//   BM_TallyReset              the failed-login count reset the library's resets run.
//
// For BM_CheckRight and BM_UserUpdateState, N is the number of generated accounts added to the
// sandbox's /etc/passwd, shadow and group:
// 0 is the sample device as the sandbox writes it; with more, admin's lines and the groups its
// lookups ask for go behind the generated ones, so that every lookup reads the whole file.
//
// The rewrite benchmarks' files live in a scratch directory ($TVC_BENCH_DIR, default /var/tmp,
// which is usually on disk where /tmp may be a tmpfs), pointed at by the configuration; the
// lock file /etc/.pwd.lock and the uid lookup touch /etc, and the account benchmarks rewrite
// the account files there, so the program runs itself inside the device sandbox
// (tools/sandbox/tvc-sandbox) and refuses to touch /etc outside it.
#include <benchmark/benchmark.h>
#include <security/pam_appl.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <malloc.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <authnz/WebPam.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>

#include "BarePam.h"
#include "sampledevice/SampleConfiguration.h"
#include "system/IdSyscalls.h"

#ifndef TVC_SANDBOX_SCRIPT
#error "TVC_SANDBOX_SCRIPT must name tools/sandbox/tvc-sandbox"
#endif

namespace {

using namespace usermanagement;

// A sample hash of realistic length; the rewrite benchmarks store it as given (encrypted), so
// that they measure the files and not crypt.
const char* const kHash =
    "$6$benchbenchbench$Ki6uqXG0qLrJ4mJ1vnfCXlX1n7C3p1l0H2mS8wzQ0d9HnHq6eW7w2c2c6Ozx8l1iCqFzQk7nH0m2f5l8pZq1aA.";

class ScratchDefinition : public UserDefinition {
public:
    std::string dir;
    std::string passwd, passwdTmp, shadow, shadowTmp;

    // The uid of the added account comes from the system database of the sandbox, where
    // 50000-50009 are free; the scratch files' own uids start at 100000.
    unsigned int getBaseUid() override { return 50000; }
    unsigned int getMaxUser() override { return 10; }
    const char* getPasswordFilePath() override { return passwd.c_str(); }
    const char* getPasswordTmpFilePath() override { return passwdTmp.c_str(); }
    const char* getShadowFilePath() override { return shadow.c_str(); }
    const char* getShadowTmpFilePath() override { return shadowTmp.c_str(); }
    bool hasRootProfile() override { return true; }
};

ScratchDefinition scratch;

void writeWhole(const std::string& path, const std::string& text) {
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !ok) throw std::runtime_error("cannot write " + path);
}

// The process's resident memory in KiB as /proc/self/status gives it under `field` ("VmRSS:",
// "VmHWM:").
long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
    throw std::runtime_error(std::string("no ") + field + " in /proc/self/status");
}

// The peak of resident memory over a benchmark's loop, above what was resident when it started:
// the kernel's high-water mark is reset to the resident size first (clear_refs 5), so files that
// were read whole into memory, or lines kept, would show here.  Reported as "peak_rss_kib".
// The memory the set-up freed (the generated files' text) is given back to the system first:
// kept by the allocator, it would be reused by the operation without showing.
class PeakMemory {
public:
    PeakMemory() : m_start((malloc_trim(0), statusKiB("VmRSS:"))) {
        std::ofstream reset("/proc/self/clear_refs");
        if (!(reset << "5" << std::flush)) throw std::runtime_error("cannot reset the peak of resident memory");
    }
    void report(benchmark::State& state) const {
        state.counters["peak_rss_kib"] = static_cast<double>(statusKiB("VmHWM:") - m_start);
    }

private:
    long m_start;
};

// passwd and shadow files of `entries` accounts; returns their total size in bytes.
std::size_t makeFiles(long entries) {
    std::string passwd, shadow;
    for (long i = 0; i < entries; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "user%06ld", i);
        passwd += std::string(name) + ":x:" + std::to_string(100000 + i) + ":100:Bench user:/home/bench:/bin/sh\n";
        shadow += std::string(name) + ":" + kHash + ":20454:0:99999:7:::\n";
    }
    writeWhole(scratch.passwd, passwd);
    writeWhole(scratch.shadow, shadow);
    return passwd.size() + shadow.size();
}

template <class Body>
void transaction(const std::string& passwd, const std::string& passwdTmp, const std::string& shadow,
                 const std::string& shadowTmp, Body body) {
    FileSystemUpdate passwdFile(passwd, passwdTmp, true);
    FileSystemUpdate shadowFile(shadow, shadowTmp, false);
    passwdFile.prepareSystemFiles();
    shadowFile.prepareSystemFiles();
    body(passwdFile, shadowFile);
    finalyzeSystemFilesTogether(passwdFile, shadowFile);
}

void BM_CryptPwd(benchmark::State& state) {
    for (auto _ : state) {
        std::string hash;
        cryptPwd("Bench#2026-password", hash);
        benchmark::DoNotOptimize(hash);
    }
    state.counters["hashes"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_AddRemove(benchmark::State& state) {
    const long entries = state.range(0);
    const std::size_t bytes = makeFiles(entries);
    PasswordType stored{true};
    const PeakMemory peak;
    for (auto _ : state) {
        unsigned int uid = 0;
        transaction(scratch.passwd, scratch.passwdTmp, scratch.shadow, scratch.shadowTmp,
                    [&](FileSystemUpdate& p, FileSystemUpdate& s) {
                        uid = addEntryInPasswordFile(p, "benchnew", 100);
                        addEntryInShadowFile(s, "benchnew", kHash, stored, -1, -1, -1, true, false);
                    });
        transaction(scratch.passwd, scratch.passwdTmp, scratch.shadow, scratch.shadowTmp,
                    [&](FileSystemUpdate& p, FileSystemUpdate& s) {
                        removeEntryInPasswordFile(p, uid);
                        removeEntryInShadowFile(s, "benchnew");
                    });
    }
    // Two rewrites of two files per iteration.
    const double iterations = static_cast<double>(state.iterations());
    state.counters["entries"] = benchmark::Counter(iterations * 4 * entries, benchmark::Counter::kIsRate);
    state.counters["rewrites"] = benchmark::Counter(iterations * 2, benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(iterations * 2 * bytes));
    state.SetComplexityN(entries);
    peak.report(state);
}

// An open file, closed by the object.
struct OpenFile {
    explicit OpenFile(int descriptor, const std::string& path) : fd(descriptor) {
        if (fd < 0) throw std::runtime_error("cannot open " + path);
    }
    ~OpenFile() { close(fd); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    const int fd;
};

// Copies `from` into the new file `to` with read/write.
void copyInto(const std::string& from, const OpenFile& to, std::vector<char>& buffer) {
    const OpenFile in(open(from.c_str(), O_RDONLY | O_CLOEXEC), from);
    for (ssize_t n; (n = read(in.fd, buffer.data(), buffer.size())) > 0;)
        if (write(to.fd, buffer.data(), static_cast<std::size_t>(n)) != n) throw std::runtime_error("short write");
}

void syncOrThrow(int fd, const std::string& path) {
    if (fsync(fd) != 0) throw std::runtime_error("cannot sync " + path);
}

// The bytes of one rewrite of both files and nothing else, done the way that costs the fewest
// disk flushes: both files copied to temporary files, then both fsynced, both renamed into
// place, and the one directory sync that makes the renames durable.  The copies replace files
// of their own, so that the source files stay as generated.
void BM_CopyAndSync(benchmark::State& state) {
    const long entries = state.range(0);
    const std::size_t bytes = makeFiles(entries);
    std::vector<char> buffer(1 << 16);
    const std::string passwdCopy = scratch.passwd + ".copy", shadowCopy = scratch.shadow + ".copy";
    const auto create = [](const std::string& path) {
        return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    };
    for (auto _ : state) {
        for (int round = 0; round < 2; ++round) {
            {
                const OpenFile passwd(create(scratch.passwdTmp), scratch.passwdTmp);
                const OpenFile shadow(create(scratch.shadowTmp), scratch.shadowTmp);
                copyInto(scratch.passwd, passwd, buffer);
                copyInto(scratch.shadow, shadow, buffer);
                syncOrThrow(passwd.fd, scratch.passwdTmp);
                syncOrThrow(shadow.fd, scratch.shadowTmp);
            }
            if (rename(scratch.passwdTmp.c_str(), passwdCopy.c_str()) != 0 ||
                rename(scratch.shadowTmp.c_str(), shadowCopy.c_str()) != 0)
                throw std::runtime_error("cannot rename the copies");
            const OpenFile directory(open(scratch.dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), scratch.dir);
            syncOrThrow(directory.fd, scratch.dir);
        }
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["entries"] = benchmark::Counter(iterations * 4 * entries, benchmark::Counter::kIsRate);
    state.counters["rewrites"] = benchmark::Counter(iterations * 2, benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(iterations * 2 * bytes));
    state.SetComplexityN(entries);
    unlink(passwdCopy.c_str());
    unlink(shadowCopy.c_str());
}

BENCHMARK(BM_CryptPwd)->Unit(benchmark::kMillisecond);
// The rewrite and its baseline run over the same file sizes, so that their rows compare.
void overFileSizes(benchmark::internal::Benchmark* bench) {
    bench->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);
    bench->Unit(benchmark::kMillisecond)->UseRealTime()->Complexity(benchmark::oN);
}
BENCHMARK(BM_AddRemove)->Apply(overFileSizes);
BENCHMARK(BM_CopyAndSync)->Apply(overFileSizes);

// ---- Reading accounts -------------------------------------------------------------------

// The sample device's configuration as the library ships it: the account benchmarks work on
// the live files of the sandbox, not on the scratch files of the rewrite benchmarks.  Its
// pause for unknown names is the real one; the benchmarks check beforehand that every name
// they look up exists, so a run that hit the pause would be a broken run, not a slow one.
UserDefinition device;
tvc::sample::SampleProfiles catalogue;

// The account whose lookups BM_UserUpdateState measures and whose identity BM_CheckRight/admin
// takes; with generated accounts it is the last entry of passwd and shadow.
const char* const kManaged = "admin";
// Groups the lookups of admin and root read by gid or by name (admin's profile group, and the
// group of the catalogue's placeholder profile); they go behind the generated groups.
const char* const kLastGroups[] = {"administrators", "nogroup"};

// Installs `definition` for the lifetime of the object, then puts the previous one back.
class ScopedDefinition {
public:
    explicit ScopedDefinition(UserDefinition& definition) { definition.setUserDefinition(definition); }
    ~ScopedDefinition() { m_saved->setUserDefinition(*m_saved); }
    ScopedDefinition(const ScopedDefinition&) = delete;
    ScopedDefinition& operator=(const ScopedDefinition&) = delete;

private:
    UserDefinition* m_saved = UserDefinition::m_ptrDefaultUserDefinition;
};

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// `text` without the lines of the entries `names`, which are appended to `moved` in file order.
std::string takeLines(const std::string& text, const std::vector<std::string>& names, std::string& moved) {
    std::string kept;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        const std::size_t next = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(at, next - at);
        bool wanted = false;
        for (const std::string& name : names) wanted = wanted || line.compare(0, name.size() + 1, name + ":") == 0;
        (wanted ? moved : kept) += line;
        at = next;
    }
    return kept;
}

// Whether /etc is the sandbox's overlay (mounted by tools/sandbox/tvc-sandbox as "tvc-sandbox"),
// which only exists in the sandbox's own mount namespace: the host's /etc is never written.
bool etcIsSandboxOverlay() {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string source, target, type, rest; mounts >> source >> target >> type && std::getline(mounts, rest);)
        if (source == "tvc-sandbox" && target == "/etc" && type == "overlay") return true;
    return false;
}

// The sample device's account files `names` (under /etc) as the sandbox wrote them.  Only ever
// inside the sandbox: the benchmarks that rewrite /etc refuse to run anywhere else.
std::vector<std::string> pristineFiles(const std::vector<std::string>& names) {
    const char* inside = std::getenv("TVC_SANDBOX");
    const char* pristine = std::getenv("TVC_SANDBOX_PRISTINE");
    if (inside == nullptr || std::strcmp(inside, "1") != 0 || pristine == nullptr || *pristine == '\0' ||
        !etcIsSandboxOverlay())
        throw std::runtime_error("not inside the device sandbox: /etc is left alone");
    std::vector<std::string> files;
    for (const std::string& name : names) files.push_back(readWhole(std::string(pristine) + "/" + name));
    return files;
}

// The sandbox's /etc/passwd, shadow and group with `extra` generated accounts (each with a
// group of its own, uids and gids from 20000 on) for the lifetime of the object; the sample
// device's files are put back afterwards, so the rewrite benchmarks always see those.  Only
// ever inside the sandbox: /etc is then a throw-away overlay, never the host's.
class DeviceFiles {
public:
    explicit DeviceFiles(long extra) : m_pristine(pristineFiles({"passwd", "shadow", "group"})) {
        std::string passwd, shadow, group;
        for (long i = 0; i < extra; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "bench%05ld", i);
            const std::string id = std::to_string(20000 + i);
            passwd += std::string(name) + ":x:" + id + ":" + id + ":Bench user:/nonexistent:/usr/sbin/nologin\n";
            shadow += std::string(name) + ":" + kHash + ":20454:0:99999:7:::\n";
            group += std::string(name) + ":x:" + id + ":\n";
        }
        std::string managedPasswd, managedShadow, lastGroups;
        passwd = takeLines(m_pristine[0], {kManaged}, managedPasswd) + passwd + managedPasswd;
        shadow = takeLines(m_pristine[1], {kManaged}, managedShadow) + shadow + managedShadow;
        group =
            takeLines(m_pristine[2], {std::begin(kLastGroups), std::end(kLastGroups)}, lastGroups) + group + lastGroups;
        // Writing over the files keeps their owner and mode.
        writeWhole("/etc/passwd", passwd);
        writeWhole("/etc/shadow", shadow);
        writeWhole("/etc/group", group);
    }
    ~DeviceFiles() {
        writeWhole("/etc/passwd", m_pristine[0]);
        writeWhole("/etc/shadow", m_pristine[1]);
        writeWhole("/etc/group", m_pristine[2]);
    }
    DeviceFiles(const DeviceFiles&) = delete;
    DeviceFiles& operator=(const DeviceFiles&) = delete;

private:
    std::vector<std::string> m_pristine;
};

// The calling thread (only it: the raw calls of IdSyscalls.h) with the effective ids and the
// groups of account `name` for the lifetime of the object; real and saved ids stay root, so
// that it can switch back.  Root stays as it is.  A thread that cannot get back to root would
// run every later benchmark as the wrong account: that aborts.
class ThreadIdentity {
public:
    ThreadIdentity(const std::string& name, uid_t uid, gid_t gid) : m_switched(uid != 0) {
        namespace ids = usermanagement::detail::ids;
        if (!m_switched) return;
        const int held = ids::getGroups(0, nullptr);
        if (held < 0) throw std::runtime_error("getgroups failed");
        m_groups.resize(static_cast<std::size_t>(held));
        if (ids::getGroups(held, m_groups.data()) != held) throw std::runtime_error("getgroups failed");
        int count = 64;
        std::vector<gid_t> groups(static_cast<std::size_t>(count));
        if (getgrouplist(name.c_str(), gid, groups.data(), &count) < 0) {
            groups.resize(static_cast<std::size_t>(count));
            getgrouplist(name.c_str(), gid, groups.data(), &count);
        }
        if (ids::setGroups(count, groups.data()) != 0 || ids::setResGid(ids::kUnchanged, gid, 0) != 0 ||
            ids::setResUid(ids::kUnchanged, uid, 0) != 0 || geteuid() != uid || getegid() != gid) {
            restore();
            throw std::runtime_error("cannot switch the thread to " + name);
        }
    }
    ~ThreadIdentity() {
        if (m_switched) restore();
    }
    ThreadIdentity(const ThreadIdentity&) = delete;
    ThreadIdentity& operator=(const ThreadIdentity&) = delete;

private:
    void restore() noexcept {
        namespace ids = usermanagement::detail::ids;
        if (ids::setResUid(ids::kUnchanged, 0, 0) != 0 ||
            ids::setGroups(static_cast<int>(m_groups.size()), m_groups.data()) != 0 ||
            ids::setResGid(ids::kUnchanged, 0, 0) != 0 || geteuid() != 0 || getegid() != 0) {
            std::fputs("tvc_bench: the benchmark thread cannot return to root\n", stderr);
            std::abort();
        }
    }

    bool m_switched;
    std::vector<gid_t> m_groups;
};

// Ids of an account that must exist; the lookups measured afterwards then never pause.
void accountIds(const std::string& name, uid_t& uid, gid_t& gid) {
    const passwd* entry = getpwnam(name.c_str());
    if (entry == nullptr) throw std::runtime_error("no account " + name + " in the sandbox");
    uid = entry->pw_uid;
    gid = entry->pw_gid;
}

// Runs `benchmark`, reporting a failure of its set-up as the benchmark's error.
template <class Body>
void guarded(benchmark::State& state, Body body) {
    try {
        body();
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

void BM_CheckRight(benchmark::State& state, const char* caller) {
    guarded(state, [&] {
        const ScopedDefinition scoped(device);
        const DeviceFiles files(state.range(0));
        uid_t uid = 0;
        gid_t gid = 0;
        accountIds(caller, uid, gid);
        const ThreadIdentity identity(caller, uid, gid);
        UserDefinition& definition = UserDefinition::GetUserDefinition();
        // Outside the loop: the first check builds the catalogue, and a refusal throws here.
        definition.checkRight(UserDefinition::ReadUser, nullptr);
        for (auto _ : state) definition.checkRight(UserDefinition::ReadUser, nullptr);
    });
}

void BM_UserUpdateState(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedDefinition scoped(device);
        const DeviceFiles files(state.range(0));
        uid_t uid = 0;
        gid_t gid = 0;
        accountIds(kManaged, uid, gid);
        {
            User user(kManaged);
            user.updateState();
            if (!user.isActive() || user.isLocked() || user.getUid() != uid)
                throw std::runtime_error(std::string(kManaged) + " does not read as an active account");
        }
        for (auto _ : state) {
            User user(kManaged);
            user.updateState();
            benchmark::DoNotOptimize(user.isActive());
        }
    });
}

BENCHMARK_CAPTURE(BM_CheckRight, admin, "admin")->Arg(0)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_CheckRight, root, "root")->Arg(0)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UserUpdateState)->Arg(0)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The sandbox's /etc with one more overlay, whose changes go to the scratch directory: the
// fsyncs of the account operations, the library's and shadow-utils', then reach the disk (as a
// device's reach its flash) rather than the sandbox's tmpfs.  For the whole run with
// TVC_BENCH_ETC_ON_DISK=1, and for the comparisons' "disk" rows.  Only ever in the sandbox's
// own mount namespace, which takes the mount with it when it ends.
class EtcOnDisk {
public:
    explicit EtcOnDisk(const std::string& scratchDir, const char* name = "etc") : m_dir(scratchDir + "/" + name) {
        (void)pristineFiles({});
        const std::string upper = m_dir + "/upper", work = m_dir + "/work";
        for (const std::string& dir : {m_dir, upper, work})
            if (mkdir(dir.c_str(), 0700) != 0) throw std::runtime_error("cannot create " + dir);
        const std::string options = "lowerdir=/etc,upperdir=" + upper + ",workdir=" + work;
        if (mount("tvc-bench", "/etc", "overlay", 0, options.c_str()) != 0) {
            const int error = errno;
            std::filesystem::remove_all(m_dir);
            throw std::runtime_error("cannot put /etc on disk: " + std::string(std::strerror(error)));
        }
    }
    ~EtcOnDisk() {
        umount2("/etc", MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    EtcOnDisk(const EtcOnDisk&) = delete;
    EtcOnDisk& operator=(const EtcOnDisk&) = delete;

private:
    std::string m_dir;
};

// ---- Account operations against shadow-utils ---------------------------------------------

// The library's operations and Debian's shadow-utils on the same files: the sandbox's /etc
// with `fillers` generated accounts behind the sample device's (uids from 100000 on, outside
// the library's managed range and outside useradd's range, so that neither side's uid search
// walks them), in passwd and shadow only.  The tools run as separate processes, as a device's
// scripts would run them.
//
// The sample device's configuration, which leaves five managed uids free (10005-10009): the
// benchmarks create one account at a time and remove it again.
tvc::sample::SampleSettings lifeCycle;

const char* const kNewAccount = "benchnew";
// viewers: a profile of the catalogue.
constexpr int kNewProfile = 2;
// The account whose password the resets set: a sample account near the top of the files.
const char* const kResetAccount = "viewer";
// Passes the sample device's password rules (pam_pwquality, minlen=8, cracklib).
const char* const kNewPassword = "Bench#Passw0rd-26";
const char* const kUseradd = "/usr/sbin/useradd";
const char* const kUserdel = "/usr/sbin/userdel";
const char* const kChpasswd = "/usr/sbin/chpasswd";

// The sandbox's account files with `fillers` generated accounts for the lifetime of the object;
// afterwards every file the library or shadow-utils rewrite is the sample device's again.
class FilledDevice {
public:
    explicit FilledDevice(long fillers) : m_pristine(pristineFiles(kFiles)) {
        std::string passwd = m_pristine[0], shadow = m_pristine[1];
        for (long i = 0; i < fillers; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "fill%06ld", i);
            passwd += std::string(name) + ":x:" + std::to_string(100000 + i) +
                      ":100:Filler account:/nonexistent:/usr/sbin/nologin\n";
            shadow += std::string(name) + ":" + kHash + ":20454:0:99999:7:::\n";
        }
        writeWhole("/etc/passwd", passwd);
        writeWhole("/etc/shadow", shadow);
    }
    ~FilledDevice() {
        for (std::size_t i = 0; i < std::size(kFiles); ++i) writeWhole(std::string("/etc/") + kFiles[i], m_pristine[i]);
        // shadow-utils' backups of the grown files.
        for (const char* backup : {"/etc/passwd-", "/etc/shadow-", "/etc/group-", "/etc/gshadow-"}) unlink(backup);
    }
    FilledDevice(const FilledDevice&) = delete;
    FilledDevice& operator=(const FilledDevice&) = delete;

private:
    static inline const std::vector<std::string> kFiles = {"passwd", "shadow", "group", "gshadow"};
    std::vector<std::string> m_pristine;
};

// Runs the program `argv[0]` as a child process with `input` on its standard input and its
// output discarded, and waits for it.  Throws when it cannot be run or does not exit with 0.
void runTool(std::vector<const char*> argv, const std::string& input = std::string()) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    // The tools read their input whole before they act; it fits into the pipe.
    const bool fed =
        spawned != 0 || input.empty() || write(in[1], input.data(), input.size()) == static_cast<ssize_t>(input.size());
    close(in[1]);
    int status = 0;
    if (spawned != 0) throw std::runtime_error(std::string("cannot run ") + argv[0] + ": " + std::strerror(spawned));
    if (waitpid(pid, &status, 0) != pid || !fed || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(std::string(argv[0]) + " failed (status " + std::to_string(status) + ")");
}

// createUser + removeUser.  `encrypted`: `password` is a ready-made hash stored as given;
// otherwise plaintext, hashed with SHA-512 crypt.  `check`: the password is first judged by the
// PAM service of the password rules (testpwd: pam_pwquality); useradd -p skips any such check.
// With `disk` (a benchmark's second argument) /etc lies on disk for the benchmark: one more
// overlay whose changes go to the scratch directory.
std::unique_ptr<EtcOnDisk> etcOnDiskIf(bool disk) {
    return disk ? std::make_unique<EtcOnDisk>(scratch.dir, "etc-rows") : nullptr;
}

void createRemove(benchmark::State& state, const char* password, bool encrypted, bool check, bool disk = false) {
    guarded(state, [&] {
        const ScopedDefinition scoped(lifeCycle);
        const auto etc = etcOnDiskIf(disk);
        const FilledDevice files(state.range(0));
        const bool skipCheck = true;
        const PeakMemory peak;
        for (auto _ : state) {
            User created = User::createUser(kNewAccount, password, encrypted, kNewProfile, true, false,
                                            check ? nullptr : &skipCheck);
            created.removeUser();
        }
        peak.report(state);
    });
}

void BM_CreateRemove(benchmark::State& state) { createRemove(state, kHash, true, false, state.range(1) != 0); }

void BM_CreateRemovePlaintext(benchmark::State& state, bool check) { createRemove(state, kNewPassword, false, check); }

void BM_UseraddUserdel(benchmark::State& state) {
    guarded(state, [&] {
        const auto etc = etcOnDiskIf(state.range(1) != 0);
        const FilledDevice files(state.range(0));
        for (auto _ : state) {
            runTool({kUseradd, "-M", "-N", "-p", kHash, kNewAccount});
            runTool({kUserdel, kNewAccount});
        }
    });
}

// A manager's reset: the plaintext is hashed (SHA-512 crypt), the shadow file rewritten and the
// failed-login count reset with pam_tally2.
void BM_Reset(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedDefinition scoped(lifeCycle);
        const FilledDevice files(state.range(0));
        User account(kResetAccount);
        for (auto _ : state) account.updateAnyUserPassword(kResetAccount, kNewPassword, false, "", false);
    });
}

// The same with a ready-made hash, the library's way of storing one: updateUser with the hash
// (rights of an account update, both files rewritten, the count reset), no crypt.
void BM_ResetStoredHash(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedDefinition scoped(lifeCycle);
        const FilledDevice files(state.range(0));
        User account(kResetAccount);
        const std::string hash = kHash;
        const bool mustChange = false, skipCheck = true;
        for (auto _ : state)
            account.updateUserWithEncryptedPassword(nullptr, nullptr, nullptr, &hash, &mustChange, &skipCheck);
    });
}

// The shadow file's part of a reset alone, with the hash given: one transaction under the lock
// with updateEntryInShadowFile, what chpasswd -e does to the files.  No rights check, no
// lookup, no crypt, no tally reset.
void BM_ResetShadowEntry(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedDefinition scoped(lifeCycle);
        const FilledDevice files(state.range(0));
        const std::string hash = kHash;
        const bool mustChange = false;
        for (auto _ : state) {
            LookUpdateShadow record;
            FileSystemUpdate shadow(lifeCycle.getShadowFilePath(), lifeCycle.getShadowTmpFilePath(), true);
            shadow.prepareSystemFiles();
            updateEntryInShadowFile(shadow, kResetAccount, nullptr, &hash, PasswordType{true}, nullptr, &mustChange,
                                    record);
            shadow.finalyzeSystemFiles();
        }
    });
}

// The failed-login count reset as the library's resets run it: the shell with pam_tally2
// (ScriptLauncher, User::unLock).  shadow-utils has no such count: a device that resets a
// password with chpasswd and wants a locked account usable again runs this as well.
const std::string kTallyReset = "pam_tally2 -f \"/var/log/tallylog\" -r -u \"" + std::string(kResetAccount) + "\"";

void BM_TallyReset(benchmark::State& state) {
    guarded(state, [&] {
        for (auto _ : state) runTool({"/bin/sh", "-c", kTallyReset.c_str()});
    });
}

// chpasswd with the hash given (-e) or hashing the plaintext itself with SHA-512 crypt
// (-c SHA512, the same 5000 rounds as cryptPwd); `tallyReset`: followed by the count reset, so
// that the account ends as after the library's reset.
void BM_Chpasswd(benchmark::State& state, bool encrypted, bool tallyReset) {
    guarded(state, [&] {
        const FilledDevice files(state.range(0));
        const std::string line = std::string(kResetAccount) + ":" + (encrypted ? kHash : kNewPassword) + "\n";
        for (auto _ : state) {
            if (encrypted)
                runTool({kChpasswd, "-e"}, line);
            else
                runTool({kChpasswd, "-c", "SHA512"}, line);
            if (tallyReset) runTool({"/bin/sh", "-c", kTallyReset.c_str()});
        }
    });
}

// ---- Logins ------------------------------------------------------------------------------

void barePamLogin(const char* service, const char* user, const char* password) {
    const int status = tvc::bench::barePamLogin(service, user, password);
    if (status != PAM_SUCCESS) throw std::runtime_error("the bare PAM login failed with status " + std::to_string(status));
}

// A web login as the web host makes it through the library: the login service's transaction,
// the password, the account check, the transaction ended.
void libraryLogin(const char* user, const char* password) {
    const std::unique_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM(user, "127.0.0.1", authnz::WebPam::WebLogin));
    pam->pamAuthentication(password);
    pam->pamAccount();
}

double percentileMs(std::vector<double> ms, double p) {
    std::sort(ms.begin(), ms.end());
    const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * static_cast<double>(ms.size())));
    return ms[std::max<std::size_t>(rank, 1) - 1];
}

// kLogins logins through the library and as many bare PAM transactions on the same service and
// account, alternating (the order within a pair alternates too), so that both see the same
// machine; the counters are the percentiles of each and their ratios.
constexpr int kLogins = 1000;
const char* const kLoginAccount = "viewer";
const char* const kLoginPassword = "Viewer#2026";

void BM_Login(benchmark::State& state) {
    guarded(state, [&] {
        const ScopedDefinition scoped(lifeCycle);
        const std::string service = lifeCycle.getWebPam();
        std::vector<double> library, bare;
        const auto timed = [](std::vector<double>& series, const std::function<void()>& login) {
            const auto start = std::chrono::steady_clock::now();
            login();
            series.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        };
        const std::function<void()> throughLibrary = [] { libraryLogin(kLoginAccount, kLoginPassword); };
        const std::function<void()> barePam = [&] { barePamLogin(service.c_str(), kLoginAccount, kLoginPassword); };
        for (int i = 0; i < 5; ++i) {  // the modules loaded and the files cached first
            throughLibrary();
            barePam();
        }
        for (auto _ : state) {
            for (int i = 0; i < kLogins; ++i) {
                if (i % 2 == 0) {
                    timed(library, throughLibrary);
                    timed(bare, barePam);
                } else {
                    timed(bare, barePam);
                    timed(library, throughLibrary);
                }
            }
        }
        for (const char* p : {"p50", "p99"}) {
            const double rank = p[1] == '5' ? 50.0 : 99.0;
            const double ours = percentileMs(library, rank), theirs = percentileMs(bare, rank);
            state.counters[std::string("library_") + p + "_ms"] = ours;
            state.counters[std::string("bare_pam_") + p + "_ms"] = theirs;
            state.counters[std::string("ratio_") + p] = ours / theirs;
        }
    });
}
BENCHMARK(BM_Login)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The sizes of the comparison; a shadow-utils operation on 100 000 accounts takes over a second,
// so that size runs a fixed small number of iterations.
void overAccountSizes(benchmark::internal::Benchmark* bench) {
    bench->Arg(10)->Arg(1000)->Arg(10000)->MinTime(0.5)->Unit(benchmark::kMillisecond)->UseRealTime();
}
void overLargeAccountFiles(benchmark::internal::Benchmark* bench) {
    bench->Arg(100000)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
}
// Each comparison over all sizes; the operation as the family name, its variant as argument.
#define TVC_COMPARE(...)                             \
    BENCHMARK(__VA_ARGS__)->Apply(overAccountSizes); \
    BENCHMARK(__VA_ARGS__)->Apply(overLargeAccountFiles)
#define TVC_COMPARE_CAPTURE(...)                             \
    BENCHMARK_CAPTURE(__VA_ARGS__)->Apply(overAccountSizes); \
    BENCHMARK_CAPTURE(__VA_ARGS__)->Apply(overLargeAccountFiles)
// The create-and-remove comparison also with /etc on disk: the second argument.
void overSizesAndStorage(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"entries", "disk"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (int disk : {0, 1})
        for (long entries : {10, 1000, 10000}) bench->Args({entries, disk});
    bench->MinTime(0.5);
}
void overLargeFilesAndStorage(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"entries", "disk"})->Args({100000, 0})->Args({100000, 1});
    bench->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
}
#define TVC_COMPARE_STORAGE(...)                        \
    BENCHMARK(__VA_ARGS__)->Apply(overSizesAndStorage); \
    BENCHMARK(__VA_ARGS__)->Apply(overLargeFilesAndStorage)
TVC_COMPARE_STORAGE(BM_CreateRemove);
TVC_COMPARE_STORAGE(BM_UseraddUserdel);
TVC_COMPARE_CAPTURE(BM_CreateRemovePlaintext, skip_check, false);
TVC_COMPARE_CAPTURE(BM_CreateRemovePlaintext, pam_check, true);
TVC_COMPARE(BM_Reset);
TVC_COMPARE(BM_ResetStoredHash);
TVC_COMPARE(BM_ResetShadowEntry);
TVC_COMPARE_CAPTURE(BM_Chpasswd, sha512, false, false);
TVC_COMPARE_CAPTURE(BM_Chpasswd, sha512_tally, false, true);
TVC_COMPARE_CAPTURE(BM_Chpasswd, encrypted, true, false);
TVC_COMPARE_CAPTURE(BM_Chpasswd, encrypted_tally, true, true);
BENCHMARK(BM_TallyReset)->MinTime(0.5)->Unit(benchmark::kMillisecond)->UseRealTime();

// Outside the sandbox: run again inside it (fails with the sandbox's message when it cannot
// be built; the lock file of the host is never touched).
void enterSandbox(char** argv) {
    if (const char* inside = std::getenv("TVC_SANDBOX"); inside != nullptr && std::strcmp(inside, "1") == 0) return;
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length < 0) {
        std::perror("tvc_bench: readlink /proc/self/exe");
        std::exit(125);
    }
    self[length] = '\0';
    std::vector<char*> args{const_cast<char*>(TVC_SANDBOX_SCRIPT), const_cast<char*>("--"), self};
    for (char** arg = argv + 1; *arg != nullptr; ++arg) args.push_back(*arg);
    args.push_back(nullptr);
    execv(TVC_SANDBOX_SCRIPT, args.data());
    std::perror("tvc_bench: exec " TVC_SANDBOX_SCRIPT);
    std::exit(125);
}

}  // namespace

int main(int argc, char** argv) {
    enterSandbox(argv);
    const char* base = std::getenv("TVC_BENCH_DIR");
    std::string dir = std::string(base != nullptr && *base != '\0' ? base : "/var/tmp") + "/tvc-bench.XXXXXX";
    if (mkdtemp(dir.data()) == nullptr) {
        std::perror("tvc_bench: mkdtemp");
        return 1;
    }
    scratch.dir = dir;
    scratch.passwd = dir + "/passwd";
    scratch.passwdTmp = dir + "/tmppassd";
    scratch.shadow = dir + "/shadow";
    scratch.shadowTmp = dir + "/tmpshadow";
    scratch.setUserDefinition(scratch);
    // As a device host does at start-up: profiles then resolve to the sample device's.
    catalogue.setProfileDefinition(catalogue);

    benchmark::Initialize(&argc, argv);
    int status = 0;
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        status = 2;
    } else {
        try {
            const char* onDisk = std::getenv("TVC_BENCH_ETC_ON_DISK");
            std::unique_ptr<EtcOnDisk> etc;
            if (onDisk != nullptr && std::strcmp(onDisk, "1") == 0) etc = std::make_unique<EtcOnDisk>(dir);
            benchmark::RunSpecifiedBenchmarks();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "tvc_bench: %s\n", e.what());
            status = 1;
        }
    }
    benchmark::Shutdown();
    for (const std::string& path : {scratch.passwd, scratch.passwdTmp, scratch.shadow, scratch.shadowTmp})
        unlink(path.c_str());
    rmdir(dir.c_str());
    return status;
}
