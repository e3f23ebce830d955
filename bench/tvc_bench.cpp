// tvc_bench: what an account-file rewrite costs.
//
//   BM_CryptPwd          one SHA-512 crypt hash with a fresh salt.
//   BM_AddRemove/N       one account added and removed again on a passwd and a shadow file of
//                        N entries each: two complete transactions per file (lock, prepare,
//                        copy every entry, flush, fsync, rename, directory sync, unlock).
//   BM_CopyAndSync/N     the baseline: the same bytes copied with read/write and fsynced, as
//                        often as BM_AddRemove rewrites them, without parsing anything.
//
// The files live in a scratch directory ($TVC_BENCH_DIR, default /var/tmp, which is usually
// on disk where /tmp may be a tmpfs), pointed at by the configuration; only the lock file
// /etc/.pwd.lock and the uid lookup touch /etc, so the program runs itself inside the device
// sandbox (tools/sandbox/tvc-sandbox).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UserDefinition.h>

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
BENCHMARK(BM_AddRemove)
    ->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000)
    ->Unit(benchmark::kMillisecond)->UseRealTime()->Complexity(benchmark::oN);
BENCHMARK(BM_CopyAndSync)
    ->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000)
    ->Unit(benchmark::kMillisecond)->UseRealTime()->Complexity(benchmark::oN);

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
