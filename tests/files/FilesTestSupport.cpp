#include "FilesTestSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern char** environ;

namespace tvc::test {

bool lockIsFree() {
    if (lckpwdf() != 0) return false;
    ulckpwdf();
    return true;
}

Snapshot Snapshot::take(const std::vector<std::string>& live, const std::vector<std::string>& temporaries) {
    Snapshot snapshot;
    for (const std::string& path : live) snapshot.files[path] = readFile(path);
    snapshot.temporaries = temporaries;
    return snapshot;
}

void Snapshot::expectUnchanged() const {
    for (const auto& [path, text] : files) EXPECT_EQ(readFile(path), text) << path << " changed";
    for (const std::string& path : temporaries) EXPECT_FALSE(exists(path)) << path << " left behind";
    EXPECT_TRUE(lockIsFree()) << "password-file lock still held";
}

void rewrite(const std::string& live, const std::string& tmp, bool lock,
             const std::function<void(usermanagement::FileSystemUpdate&)>& body) {
    usermanagement::FileSystemUpdate transaction(live, tmp, lock);
    transaction.prepareSystemFiles();
    body(transaction);
    transaction.finalyzeSystemFiles();
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> result;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

std::string lineOf(const std::string& path, const std::string& name) {
    for (const std::string& line : lines(path))
        if (line.compare(0, name.size() + 1, name + ":") == 0) return line;
    return "";
}

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> result;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type colon = line.find(':', start);
        result.push_back(line.substr(start, colon - start));
        if (colon == std::string::npos) return result;
        start = colon + 1;
    }
}

RunningProcess startProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
    RunningProcess child;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return child;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    // extraEnv replaces variables of the same name.
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        bool replaced = false;
        for (const std::string& extra : extraEnv)
            replaced = replaced || extra.compare(0, extra.find('=') + 1, entry, 0, entry.find('=') + 1) == 0;
        if (!replaced) envText.push_back(entry);
    }
    envText.insert(envText.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> env;
    for (std::string& entry : envText) env.push_back(entry.data());
    env.push_back(nullptr);
    const int spawned = posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (spawned != 0) {
        close(out[0]);
        child.pid = -1;
        ADD_FAILURE() << "spawn " << argv[0] << ": " << std::strerror(spawned);
        return child;
    }
    child.out = out[0];
    return child;
}

ProcessResult finish(RunningProcess& child) {
    ProcessResult result;
    if (child.pid < 0) return result;
    char buffer[4096];
    for (ssize_t n; (n = read(child.out, buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        result.output.append(buffer, static_cast<std::size_t>(n));
    }
    close(child.out);
    while (waitpid(child.pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    child = RunningProcess{};
    return result;
}

ProcessResult runProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
    RunningProcess child = startProcess(argv, extraEnv);
    return finish(child);
}

}  // namespace tvc::test
