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
// N is the number of generated accounts added to the sandbox's /etc/passwd, shadow and group:
// 0 is the sample device as the sandbox writes it; with more, admin's lines and the groups its
// lookups ask for go behind the generated ones, so that every lookup reads the whole file.
//
// The rewrite benchmarks' files live in a scratch directory ($TVC_BENCH_DIR, default /var/tmp,
// which is usually on disk where /tmp may be a tmpfs), pointed at by the configuration; the
// lock file /etc/.pwd.lock and the uid lookup touch /etc, and the account benchmarks rewrite
// the account files there, so the program runs itself inside the device sandbox
// (tools/sandbox/tvc-sandbox) and refuses to touch /etc outside it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/User.h>
#include <usermanagement/UserDefinition.h>

#include "sampledevice/SampleCatalogue.h"
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
}

// Copies `from` into `to` with read/write and fsyncs `to`.
void copyAndSync(const std::string& from, const std::string& to, std::vector<char>& buffer) {
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) throw std::runtime_error("cannot open " + from + " or " + to);
    for (ssize_t n; (n = read(in, buffer.data(), buffer.size())) > 0;)
        if (write(out, buffer.data(), static_cast<std::size_t>(n)) != n) throw std::runtime_error("short write");
    if (fsync(out) != 0) throw std::runtime_error("fsync failed");
    close(in);
    close(out);
}

void BM_CopyAndSync(benchmark::State& state) {
    const long entries = state.range(0);
    const std::size_t bytes = makeFiles(entries);
    std::vector<char> buffer(1 << 16);
    for (auto _ : state) {
        for (int round = 0; round < 2; ++round) {
            copyAndSync(scratch.passwd, scratch.passwdTmp, buffer);
            copyAndSync(scratch.shadow, scratch.shadowTmp, buffer);
        }
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["entries"] = benchmark::Counter(iterations * 4 * entries, benchmark::Counter::kIsRate);
    state.counters["rewrites"] = benchmark::Counter(iterations * 2, benchmark::Counter::kIsRate);
    state.SetBytesProcessed(static_cast<int64_t>(iterations * 2 * bytes));
    state.SetComplexityN(entries);
    unlink(scratch.passwdTmp.c_str());
    unlink(scratch.shadowTmp.c_str());
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
tvc::sample::SampleCatalogue catalogue;

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

// The sandbox's /etc/passwd, shadow and group with `extra` generated accounts (each with a
// group of its own, uids and gids from 20000 on) for the lifetime of the object; the sample
// device's files are put back afterwards, so the rewrite benchmarks always see those.  Only
// ever inside the sandbox: /etc is then a throw-away overlay, never the host's.
class DeviceFiles {
public:
    explicit DeviceFiles(long extra) {
        const char* inside = std::getenv("TVC_SANDBOX");
        const char* pristine = std::getenv("TVC_SANDBOX_PRISTINE");
        if (inside == nullptr || std::strcmp(inside, "1") != 0 || pristine == nullptr || *pristine == '\0')
            throw std::runtime_error("not inside the device sandbox: /etc is left alone");
        for (const char* name : {"passwd", "shadow", "group"})
            m_pristine.push_back(readWhole(std::string(pristine) + "/" + name));
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
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    for (const std::string& path : {scratch.passwd, scratch.passwdTmp, scratch.shadow, scratch.shadowTmp})
        unlink(path.c_str());
    rmdir(dir.c_str());
    return status;
}
