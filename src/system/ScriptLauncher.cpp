// popen/pclose of the library's own: a pipe, fork, and "/bin/sh -c command" in the child.
//
// The host is multithreaded, so the design keeps the child's work between fork and execl to
// system calls on descriptors and ids:
// - the descriptor table and the stream are made before the fork, so no allocation that may
//   fail is left to the child, and nothing is recorded for a child that never ran;
// - the identity snapshot is taken, the configuration asked and the account's group list
//   looked up (host code and name service lookups that may lock, allocate or throw) before the
//   fork as well; the child then makes the same raw calls as
//   SystemPermission::setUserPermissionDefinitely() without building an exception when they
//   are refused;
// - a child whose identity has no root effective uid gets the groups of that account
//   (getgrouplist with the effective gid, or the effective gid alone for an id without an
//   account) instead of the caller's: a thread that switched to an account may still carry
//   root's or another account's groups, which the command must not keep for good;
// - a child that cannot take its identity or start the shell says why (its errno) through a
//   close-on-exec status pipe and ends with status 127; the parent reads that pipe until end
//   of file, which the successful execl gives, so a command that never ran is reported as a
//   launch failure instead of looking like one with empty output;
// - every signal is blocked across the fork, and the child sets the host's handlers back to
//   the default before it unblocks them: a host handler must not run in a child that may
//   still hold root and shares the parent's stdio buffers; the command starts with the
//   caller's signal mask, as with popen;
// - all pipe ends are close-on-exec, so a command started by another thread in between
//   never inherits them (an inherited write end would keep the reader waiting for an
//   end of file until that other command ended).
#include <systemutilities/ScriptLauncher.h>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UserDefinition.h>

#include "access/DatabaseLookup.h"
#include "foundation/Descriptor.h"
#include "system/IdSyscalls.h"
#include "system/ReadToEnd.h"

namespace systemutilities {

pid_t* ScriptLauncher::m_pids = nullptr;

namespace {

using usermanagement::SystemPermission;
using usermanagement::detail::Descriptor;
namespace ids = usermanagement::detail::ids;

// The ids a child keeps for good (none: it keeps the caller's real, effective and saved ids).
struct Identity {
    uid_t uid;
    gid_t gid;
    // When `replaceGroups`, the child's supplementary groups become `groups` (sorted, as the
    // kernel keeps them); `readBack` is room to check them without allocating in the child.
    bool replaceGroups;
    std::vector<gid_t> groups;
    std::vector<gid_t> readBack;
};

struct StreamCloser {
    void operator()(FILE* stream) const { std::fclose(stream); }
};

// The groups the account with effective ids `uid`/`gid` is entitled to, sorted: those the group
// database gives its name, `gid` included, or `gid` alone for an id without an account.  False,
// with errno set, when the database cannot answer.
bool accountGroups(uid_t uid, gid_t gid, std::vector<gid_t>& groups) {
    const auto account = usermanagement::detail::userById(uid);
    if (account.status == usermanagement::detail::LookupStatus::Failed) {
        errno = account.error;
        return false;
    }
    if (!account.found()) {
        groups.assign(1, gid);
        return true;
    }
    if (!usermanagement::detail::groupListOf(account.entry.pw_name, gid, groups)) return false;
    std::sort(groups.begin(), groups.end());
    return true;
}

// Whether the thread's supplementary groups are exactly `identity.groups`.
bool hasGroups(Identity& identity) noexcept {
    const int count = static_cast<int>(identity.groups.size());
    if (ids::getGroups(0, nullptr) != count) return false;
    if (count > 0 && ids::getGroups(count, identity.readBack.data()) != count) return false;
    return std::equal(identity.groups.begin(), identity.groups.end(), identity.readBack.begin());
}

// The end of a child that did not reach the shell: tells the parent why (never 0), exit 127.
[[noreturn]] void childFailed(int statusEnd, int error) noexcept {
    if (error == 0) error = EPERM;
    const ssize_t ignored = write(statusEnd, &error, sizeof error);
    (void)ignored;
    _exit(127);
}

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

// The child after fork: ids, groups, descriptors, shell.  Never returns into the caller's code.
// Only system calls: another thread of the parent may have held a lock at the fork.
[[noreturn]] void runChild(const char* command, bool reading, int parentEnd, int childEnd, int statusEnd,
                           std::optional<Identity>& identity, const sigset_t& callerMask) noexcept {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN)
            continue;
        action = {};
        action.sa_handler = SIG_DFL;
        sigaction(number, &action, nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &callerMask, nullptr);
    if (identity) {
        // A check that fails without a refused call leaves errno 0: reported as EPERM.
        errno = 0;
        if (ids::setResUid(ids::kUnchanged, 0, 0) == -1) childFailed(statusEnd, errno);
        if (identity->replaceGroups &&
            (ids::setGroups(static_cast<int>(identity->groups.size()), identity->groups.data()) == -1 ||
             !hasGroups(*identity)))
            childFailed(statusEnd, errno);
        if (ids::keepOnlyIds(identity->uid, identity->gid) != ids::KeepOnly::Done) childFailed(statusEnd, errno);
    }
    const int target = reading ? STDOUT_FILENO : STDIN_FILENO;
    // With standard input or output closed (by another thread, meanwhile), the status pipe may
    // hold the very number the child's end is to take: it moves out of the way first.
    if (statusEnd == target) {
        const int moved = fcntl(statusEnd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved == -1) childFailed(statusEnd, errno);
        statusEnd = moved;
    }
    // The parent's end first: it may hold that number as well.
    close(parentEnd);
    if (childEnd != target) {
        if (dup2(childEnd, target) == -1) childFailed(statusEnd, errno);
        close(childEnd);
    } else if (fcntl(childEnd, F_SETFD, 0) == -1) {
        // Already in place, but still close-on-exec.
        childFailed(statusEnd, errno);
    }
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    childFailed(statusEnd, errno);
}

FILE* launch(const char* command, const char* mode, bool dropIds) {
    if (command == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (!ensureTable()) return nullptr;
    std::optional<Identity> identity;
    if (dropIds) {
        try {
            if (usermanagement::UserDefinition::GetUserDefinition().hasRootProfile()) {
                const SystemPermission snapshot;
                identity = Identity{snapshot.getEuid(), snapshot.getEgid(), snapshot.getEuid() != 0, {}, {}};
                if (identity->replaceGroups) {
                    if (!accountGroups(identity->uid, identity->gid, identity->groups)) return nullptr;
                    identity->readBack.resize(identity->groups.size());
                }
            }
        } catch (const std::bad_alloc&) {
            // Running out of memory is not a launch failure to hide behind a null stream.
            throw;
        } catch (...) {
            // No configuration, a host provider that failed, or a database that could not be
            // asked: the command does not run.
            errno = EPERM;
            return nullptr;
        }
    }
    const bool reading = mode[0] == 'r';

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return nullptr;
    Descriptor parentEnd(reading ? ends[0] : ends[1]);
    Descriptor childEnd(reading ? ends[1] : ends[0]);
    // The table could not record the child: refuse before anything runs.
    if (parentEnd.get() >= g_tableSize.load(std::memory_order_acquire)) {
        errno = EMFILE;
        return nullptr;
    }
    int statusEnds[2];
    if (pipe2(statusEnds, O_CLOEXEC) != 0) return nullptr;
    Descriptor statusRead(statusEnds[0]);
    Descriptor statusWrite(statusEnds[1]);
    std::unique_ptr<FILE, StreamCloser> stream(fdopen(parentEnd.get(), mode));
    if (!stream) return nullptr;
    const int streamEnd = parentEnd.release();

    sigset_t all;
    sigset_t callerMask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &callerMask);
    const pid_t child = fork();
    if (child == 0) runChild(command, reading, streamEnd, childEnd.get(), statusWrite.get(), identity, callerMask);
    const int forkError = errno;
    pthread_sigmask(SIG_SETMASK, &callerMask, nullptr);
    if (child == -1) {
        stream.reset();
        errno = forkError;  // not whatever closing the stream left
        return nullptr;
    }

    childEnd.reset();
    statusWrite.reset();
    // End of file: the shell was executed.  Anything else: the child's errno, and its end.
    int error = 0;
    ssize_t got;
    do {
        got = read(statusRead.get(), &error, sizeof error);
    } while (got == -1 && errno == EINTR);
    if (got != 0) {
        stream.reset();
        while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
        }
        errno = got == static_cast<ssize_t>(sizeof error) && error != 0 ? error : EIO;
        return nullptr;
    }
    __atomic_store_n(&ScriptLauncher::m_pids[streamEnd], child, __ATOMIC_RELEASE);
    return stream.release();
}

}  // namespace

FILE* ScriptLauncher::Popen(const char* command, const char* mode) { return launch(command, mode, true); }

FILE* ScriptLauncher::PopenWithoutPerm(const char* command, const char* mode) { return launch(command, mode, false); }

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
    FILE* launched = withPermission ? Popen(command.c_str(), "r") : PopenWithoutPerm(command.c_str(), "r");
    const int error = errno;
    std::shared_ptr<FILE> stream(launched, Pclose);
    if (!stream) {
        throw LaunchError(std::string(std::strerror(error)) + " (uid " + std::to_string(geteuid()) + " gid " +
                          std::to_string(getegid()) + ")");
    }
    usermanagement::detail::readToEnd(stream.get(), &result);
    const std::string::size_type last = result.rfind('\n');
    if (last != std::string::npos) result.erase(last, 1);
    return result;
}

LaunchError::LaunchError(std::string description)
    : std::runtime_error("popen() failed!"), m_description(std::move(description)) {}

LaunchError::~LaunchError() = default;

const std::string& LaunchError::getErrorDescription() const noexcept { return m_description; }

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
