// popen/pclose of the library's own: a pipe, fork, and "/bin/sh -c command" in the child.
//
// The host is multithreaded, so the design keeps the child's work between fork and execl to
// system calls on descriptors and ids:
// - the descriptor table and the stream are made before the fork, so no allocation that may
//   fail is left to the child, and nothing is recorded for a child that never ran;
// - the identity snapshot is taken and the configuration asked (host code that may lock,
//   allocate or throw) before the fork as well; the child then makes the same raw calls as
//   SystemPermission::setUserPermissionDefinitely() without building an exception when they
//   are refused: it ends with status 127 instead;
// - every signal is blocked across the fork, and the child sets the host's handlers back to
//   the default before it unblocks them: a host handler must not run in a child that may
//   still hold root and shares the parent's stdio buffers; the command starts with the
//   caller's signal mask, as with popen;
// - both pipe ends are close-on-exec, so a command started by another thread in between
//   never inherits them (an inherited write end would keep the reader waiting for an
//   end of file until that other command ended).
#include <systemutilities/ScriptLauncher.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>

#include <usermanagement/SystemPermission.h>
#include <usermanagement/UserDefinition.h>

#include "system/IdSyscalls.h"

namespace systemutilities {

pid_t* ScriptLauncher::m_pids = nullptr;

namespace {

using usermanagement::SystemPermission;
namespace ids = usermanagement::detail::ids;

// The ids a child keeps for good (none: it keeps the caller's real, effective and saved ids).
struct Identity {
    uid_t uid;
    gid_t gid;
};

// Number of entries of m_pids; published (release) after m_pids is set, so a reader that
// sees a size sees the table.
std::atomic<int> g_tableSize{0};
std::mutex g_tableMutex;

bool ensureTable() {
    if (g_tableSize.load(std::memory_order_acquire) > 0) return true;
    std::lock_guard<std::mutex> lock(g_tableMutex);
    if (g_tableSize.load(std::memory_order_relaxed) > 0) return true;
    int size = getdtablesize();
    if (size < 1) return false;
    auto* table = static_cast<pid_t*>(std::calloc(static_cast<size_t>(size), sizeof(pid_t)));
    if (table == nullptr) return false;
    ScriptLauncher::m_pids = table;
    g_tableSize.store(size, std::memory_order_release);
    return true;
}

// The child after fork: ids, descriptors, shell.  Never returns into the caller's code.
// Only system calls: another thread of the parent may have held a lock at the fork.
[[noreturn]] void runChild(const char* command, bool reading, int parentEnd, int childEnd,
                           const std::optional<Identity>& identity, const sigset_t& callerMask) noexcept {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN)
            continue;
        action = {};
        action.sa_handler = SIG_DFL;
        sigaction(number, &action, nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &callerMask, nullptr);
    if (identity && (ids::setResUid(ids::kUnchanged, 0, 0) == -1 ||
                     ids::keepOnlyIds(identity->uid, identity->gid) != ids::KeepOnly::Done))
        _exit(127);
    const int target = reading ? STDOUT_FILENO : STDIN_FILENO;
    // The parent's end first: when the caller had closed standard input or output, it may
    // hold the very descriptor number the child's end is to take.
    close(parentEnd);
    if (childEnd != target) {
        if (dup2(childEnd, target) == -1) _exit(127);
        close(childEnd);
    } else if (fcntl(childEnd, F_SETFD, 0) == -1) {
        // Already in place, but still close-on-exec.
        _exit(127);
    }
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

FILE* launch(const char* command, const char* mode, bool dropIds) {
    if (command == nullptr || mode == nullptr) return nullptr;
    if (!ensureTable()) return nullptr;
    std::optional<Identity> identity;
    if (dropIds) {
        try {
            if (usermanagement::UserDefinition::GetUserDefinition().hasRootProfile()) {
                const SystemPermission snapshot;
                identity = Identity{snapshot.getEuid(), snapshot.getEgid()};
            }
        } catch (...) {
            return nullptr;
        }
    }
    const bool reading = mode[0] == 'r';

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return nullptr;
    const int parentEnd = reading ? ends[0] : ends[1];
    const int childEnd = reading ? ends[1] : ends[0];
    // The table could not record the child: refuse before anything runs.
    if (parentEnd >= g_tableSize.load(std::memory_order_acquire)) {
        close(ends[0]);
        close(ends[1]);
        return nullptr;
    }
    FILE* stream = fdopen(parentEnd, mode);
    if (stream == nullptr) {
        close(ends[0]);
        close(ends[1]);
        return nullptr;
    }

    sigset_t all;
    sigset_t callerMask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &callerMask);
    const pid_t child = fork();
    if (child == 0) runChild(command, reading, parentEnd, childEnd, identity, callerMask);
    pthread_sigmask(SIG_SETMASK, &callerMask, nullptr);
    if (child == -1) {
        std::fclose(stream);
        close(childEnd);
        return nullptr;
    }

    close(childEnd);
    __atomic_store_n(&ScriptLauncher::m_pids[parentEnd], child, __ATOMIC_RELEASE);
    return stream;
}

}  // namespace

FILE* ScriptLauncher::Popen(const char* command, const char* mode) { return launch(command, mode, true); }

FILE* ScriptLauncher::PopenWithoutPerm(const char* command, const char* mode) {
    return launch(command, mode, false);
}

int ScriptLauncher::Pclose(FILE* stream) {
    const int size = g_tableSize.load(std::memory_order_acquire);
    if (size <= 0 || stream == nullptr) return -1;
    const int fd = fileno(stream);
    if (fd < 0 || fd >= size) return -1;
    // Taken out of the table before fclose: once the descriptor number is free, another
    // thread's launch may be handed it and record its own child under it.
    const pid_t child = __atomic_exchange_n(&m_pids[fd], 0, __ATOMIC_ACQ_REL);
    if (child == 0) return -1;
    std::fclose(stream);

    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGQUIT);
    sigaddset(&blocked, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(child, &status, 0);
    } while (waited == -1 && errno == EINTR);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return waited == -1 ? -1 : status;
}

std::string ScriptLauncher::exec(const std::string& command, bool withPermission) {
    std::string result;
    std::shared_ptr<FILE> stream(
        withPermission ? Popen(command.c_str(), "r") : PopenWithoutPerm(command.c_str(), "r"), Pclose);
    if (!stream) throw std::runtime_error("popen() failed!");
    char piece[128];
    while (std::fgets(piece, sizeof piece, stream.get()) != nullptr) result += piece;
    const std::string::size_type last = result.rfind('\n');
    if (last != std::string::npos) result.erase(last, 1);
    return result;
}

std::string shellQuote(const std::string& text) {
    if (text.find('\0') != std::string::npos) throw std::invalid_argument("shellQuote: text holds a NUL byte");
    std::string quoted;
    quoted.reserve(text.size() + 2);
    quoted += '\'';
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";  // close the quotes, an escaped quote, reopen
        else
            quoted += c;
    }
    quoted += '\'';
    return quoted;
}

}  // namespace systemutilities
