// The account-file transaction.  Order of events that keeps the live file safe: the new
// contents go to a temporary file, which is flushed and synced before anything replaces the
// live file, and replacing is one rename (atomic on one file system) or the update command.
//
// The process runs as root and the temporary file lies in a directory others may reach, so
// the temporary name is never trusted: whatever is found there (a leftover, or a link planted
// to redirect the write) is removed and a fresh file is created exclusively, without following
// links.  A temporary name that leads to the live file or the reference copy is refused.
#include <usermanagement/FileSystemUpdate.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "files/InputStream.h"
#include "files/PasswordFileLock.h"
#include "foundation/Descriptor.h"
#include "foundation/Raise.h"

namespace usermanagement {

namespace {

// Every failure of a transaction but the lock: UMSystemErrorException FileTransaction, its
// message worded as hosts match on it, the reason of the failed call (errno) as description.
template <class... Parts>
[[noreturn]] void failTransaction(int error, Parts&&... parts) {
    detail::raiseErrno<UMSystemErrorException>(error, UMSystemError::FileTransaction, std::forward<Parts>(parts)...);
}

void closeStream(FILE*& stream) {
    if (stream != nullptr) {
        std::fclose(stream);
        stream = nullptr;
    }
}

std::string directoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// realpath(3) as a string; "" when the path does not resolve.
std::string resolved(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    return real ? std::string(real.get()) : std::string();
}

// The directory entry `path` names: its directory resolved (links, "." and ".."), its last
// component as written, since that is what unlink and rename act on.
std::string entryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last.empty() || last == "." || last == "..") return resolved(path);
    const std::string directory = resolved(directoryOf(path));
    if (directory.empty()) return path;
    return (directory == "/" ? "" : directory) + "/" + last;
}

// Whether creating, removing or renaming `temporary` would act on the file `other`: both name
// the same directory entry, or `other` is a link to the entry `temporary` names.
bool reaches(const std::string& temporary, const std::string& other) {
    if (other.empty()) return false;
    const std::string entry = entryOf(temporary);
    if (entry == entryOf(other)) return true;
    const std::string target = resolved(other);
    return !target.empty() && entry == target;
}

bool temporaryIsSafe(const FileSystemUpdate& t) {
    return !reaches(t.m_tmpFilePath, t.m_filePath) && !reaches(t.m_tmpFilePath, t.m_origFilePath);
}

// The temporary file is created, emptied and removed as root: a name that leads to the live
// file or the reference copy would destroy the very file the transaction protects.
void checkTemporaryPath(const FileSystemUpdate& t) {
    if (!temporaryIsSafe(t))
        failTransaction(0, "FileSystemUpdate:temporary file is the live file (", t.m_tmpFilePath, ")");
}

// The file a rename must replace.  A live file that is a link (an /etc that is read-only with
// the account files on a data partition) keeps its link: the file it leads to is replaced, in
// one rename on its own file system.  Replacing the link itself would cut /etc off the data
// partition for good.
std::string installTarget(const std::string& live, const std::string& temporary) {
    struct stat st {};
    if (lstat(live.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return live;
    const std::string target = resolved(live);
    if (target.empty()) {
        const int error = errno;
        failTransaction(error, "rename error of:", temporary, " to ", live, " ", error, std::strerror(error));
    }
    return target;
}

// The directory entry written by rename only survives a power cut once the directory itself
// is synced.  The new file is in place either way, so a failure here is not reported.
void syncDirectory(const std::string& path) {
    const detail::Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory) (void)fsync(directory.get());
}

void syncParentDirectory(const std::string& path) { syncDirectory(directoryOf(path)); }

// A regular file created by this call alone: never a leftover, never through a link.
int createExclusively(const std::string& path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// A file the transaction reads (the live file, the reference copy), as a stream that reads it in
// large chunks (InputStream.h).  `status` receives the file's status (`statError` the errno of a
// failed fstat).  Null with errno when the file cannot be opened.
FILE* openInput(const std::string& path, struct stat* status, int* statError) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    if (status != nullptr) *statError = fstat(fd, status) == 0 ? 0 : errno;
    return detail::openInputStream(fd);
}

// First step before installing: close the inputs and hand what the temporary file's stream
// still buffers to the kernel.
void flushTemporary(FileSystemUpdate& t) {
    closeStream(t.m_file);
    closeStream(t.m_origFile);
    // ferror: a write that failed earlier may have dropped buffered entries while a later
    // flush succeeds; such a file is incomplete and must not replace the live one.
    if (t.m_tmpFile == nullptr || std::ferror(t.m_tmpFile) != 0 || std::fflush(t.m_tmpFile) != 0) {
        const int error = t.m_tmpFile == nullptr ? EBADF : errno;
        closeStream(t.m_tmpFile);
        failTransaction(error, "fflush or fsync error of:", t.m_tmpFilePath);
    }
}

// Second step: the temporary file on disk, then closed.
void syncTemporary(FileSystemUpdate& t) {
    if (fsync(fileno(t.m_tmpFile)) != 0) {
        const int error = errno;
        closeStream(t.m_tmpFile);
        failTransaction(error, "fflush or fsync error of:", t.m_tmpFilePath);
    }
    const int closed = std::fclose(t.m_tmpFile);
    t.m_tmpFile = nullptr;
    if (closed != 0) failTransaction(errno, "fclose error of:", t.m_tmpFilePath);
}

// Completes the temporary files of one operation: every file is flushed before any is synced.
// A journalling file system then commits all their blocks with the first fsync, and the others
// find nothing left to write; synced one after the other, each file's last buffer reached the
// kernel only after the previous commit, and cost a commit (a disk flush) of its own.
void completeTemporaries(const std::vector<FileSystemUpdate*>& files) {
    for (FileSystemUpdate* t : files) flushTemporary(*t);
    for (FileSystemUpdate* t : files) syncTemporary(*t);
}

// Puts the file `source` in place of the live file of `t`: a rename as root, otherwise the
// update command.  `renamedIn`, when given, receives the directory of a rename, which the
// caller then syncs itself (once for every file of an operation that lie there); otherwise the
// directory is synced here.
void install(const FileSystemUpdate& t, const std::string& source, std::vector<std::string>* renamedIn = nullptr) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    if (definition.hasRootProfile()) {
        const std::string target = installTarget(t.m_filePath, source);
        if (rename(source.c_str(), target.c_str()) != 0) {
            const int error = errno;
            failTransaction(error, "rename error of:", source, " to ", t.m_filePath, " ", error, std::strerror(error));
        }
        if (renamedIn == nullptr) {
            syncParentDirectory(target);
        } else if (std::find(renamedIn->begin(), renamedIn->end(), directoryOf(target)) == renamedIn->end()) {
            renamedIn->push_back(directoryOf(target));
        }
        return;
    }
    // The command line is the configured script text followed by the two paths exactly as the
    // configuration gives them, run by the shell: that is the interface of the update command.
    // The paths are the host's own configuration, not user input; a host that configures paths
    // with blanks or shell characters must quote them itself.
    const std::string command = std::string(definition.getUpdateFileScript()) + source + " " + t.m_filePath;
    const int status = std::system(command.c_str());
    const int error = errno;
    // Only a status of -1 means that system() itself failed; a command that ran and failed
    // leaves errno from before, which is no reason to report.
    if (status != 0)
        failTransaction(status == -1 ? error : 0, "Script update error ", status, " of:", source, " to ", t.m_filePath,
                        " ", error, std::strerror(error));
}

// The live file of a transaction as it was before its installation, kept next to its
// temporary file until the operation is known to succeed, so that the installation can be
// undone.  As root a second hard link (no copy; rename puts it back atomically); otherwise a
// copy that the update command installs again.  Removed when the object goes.
class KeptFile {
public:
    explicit KeptFile(const FileSystemUpdate& t) : m_transaction(t), m_path(t.m_tmpFilePath + ".old") {
        // A leftover of an operation that died is of no use any more: the files it knew have
        // been replaced since.
        (void)unlink(m_path.c_str());
        const bool kept = UserDefinition::GetUserDefinition().hasRootProfile()
                              ? link(installTarget(t.m_filePath, t.m_tmpFilePath).c_str(), m_path.c_str()) == 0
                              : copyLive();
        if (!kept) {
            const int error = errno;
            (void)unlink(m_path.c_str());
            failTransaction(error, "FileSystemUpdate:cannot keep ", t.m_filePath, " as ", m_path, " ", error,
                            std::strerror(error));
        }
    }
    ~KeptFile() { (void)unlink(m_path.c_str()); }
    KeptFile(const KeptFile&) = delete;
    KeptFile& operator=(const KeptFile&) = delete;

    // Installs the kept file again.  `failure` is what made the operation fail; when the
    // file cannot be put back either, the error says both.
    void putBack(const std::string& failure) {
        try {
            install(m_transaction, m_path);
        } catch (tarvicexception::TvcException& e) {
            // The kept file is then the only copy of the file as it was: it is moved out of the
            // way of the next operation (which removes leftovers) and named in the error, for an
            // operator to put back by hand.
            const std::string saved = m_path + ".unrestored";
            const bool moved = rename(m_path.c_str(), saved.c_str()) == 0;
            failTransaction(0, "FileSystemUpdate:", m_transaction.m_filePath, " could not be put back (", e.what(),
                            ") after: ", failure, moved ? "; it is kept as " + saved : std::string());
        }
    }

private:
    // False with errno of the step that failed.
    bool copyLive() {
        const detail::Descriptor in(open(m_transaction.m_filePath.c_str(), O_RDONLY | O_CLOEXEC));
        if (!in) return false;
        detail::Descriptor out(createExclusively(m_path));
        if (!out) return false;
        char buffer[8192];
        for (ssize_t n; (n = read(in.get(), buffer, sizeof buffer)) != 0;) {
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 || !detail::writeAll(out.get(), buffer, static_cast<std::size_t>(n))) return false;
        }
        // close() reports what a file system that writes back late may not have told fsync.
        return fsync(out.get()) == 0 && close(out.release()) == 0;
    }

    const FileSystemUpdate& m_transaction;
    const std::string m_path;
};

// Undoes the first `installed` installations of one operation after a later step failed with
// `failure`, the last installed first, so that the live files are again the set they were.
// Every file is put back even when an earlier one cannot be; the first of those errors, which
// names both what failed and what could not be undone, is thrown.
void putBack(std::deque<KeptFile>& kept, std::size_t installed, const char* failure) {
    std::exception_ptr unrestored;
    while (installed-- > 0) {
        try {
            kept[installed].putBack(failure);
        } catch (const std::exception&) {
            if (!unrestored) unrestored = std::current_exception();
        }
    }
    if (unrestored) std::rethrow_exception(unrestored);
}

}  // namespace

FileSystemUpdate::FileSystemUpdate(std::string filePath, std::string tmpFilePath, bool lock)
    : FileSystemUpdate(std::move(filePath), std::move(tmpFilePath), std::string(), lock) {}

FileSystemUpdate::FileSystemUpdate(std::string filePath, std::string tmpFilePath, std::string origFilePath, bool lock)
    : m_filePath(std::move(filePath)),
      m_tmpFilePath(std::move(tmpFilePath)),
      m_origFilePath(std::move(origFilePath)),
      m_file(nullptr),
      m_tmpFile(nullptr),
      m_origFile(nullptr),
      m_lock(lock) {
    // Refused before the lock is taken: the destructor, which removes the temporary file, does
    // not run for an object whose construction failed.
    checkTemporaryPath(*this);
    // The lock waits for a holder in another process or one of our other threads (PasswordFileLock.h).
    // When this throws, no object exists and its destructor (which would unlink the temporary
    // path of whoever holds the lock) does not run.
    int error = 0;
    if (lock && !detail::lockPasswordFiles(true, error))
        detail::raiseErrno<UMSystemErrorException>(error, UMSystemError::FilesLocked,
                                                   "FileSystemUpdate:password files locked (", m_filePath, ")");
}

// The process's getpwent, getgrent and getspent streams are the host's: ending them here would
// make a host thread's enumeration start over in the middle (its next get*ent reads the file
// from the top again).  The library reads the files on streams of its own, and every lookup
// (getpwnam_r and its siblings) opens the file afresh, so nothing needs them ended to see the
// installed files.
FileSystemUpdate::~FileSystemUpdate() {
    closeStream(m_tmpFile);
    closeStream(m_file);
    closeStream(m_origFile);
    // The paths are public members: checked again rather than trusted since construction.
    // Without memory for the check the file stays; the next preparation removes it.
    bool removable = false;
    try {
        removable = temporaryIsSafe(*this);
    } catch (const std::bad_alloc&) {
    }
    if (removable) (void)unlink(m_tmpFilePath.c_str());
    if (m_lock) detail::unlockPasswordFiles(true);
}

void FileSystemUpdate::prepareSystemFiles() {
    // A second preparation starts over rather than leaking the first one's streams.
    closeStream(m_tmpFile);
    closeStream(m_file);
    closeStream(m_origFile);
    checkTemporaryPath(*this);

    // Whatever the name holds goes first (a failure shows in the exclusive creation).  The
    // file is created 0600 by the open itself: the process's creation mask is not touched,
    // since other threads of the host create files meanwhile.  The streams are close-on-exec:
    // a child process started meanwhile by another thread of the host must not inherit a
    // descriptor on the shadow file.
    (void)unlink(m_tmpFilePath.c_str());
    const int tmp = createExclusively(m_tmpFilePath);
    if (tmp >= 0) {
        m_tmpFile = fdopen(tmp, "w");
        if (m_tmpFile == nullptr) close(tmp);
    }
    if (m_tmpFile == nullptr) failTransaction(errno, "fopen ", m_tmpFilePath, " prepareSystemFiles");

    // fstat of the opened file: for a live file that is a link, the file it leads to.
    struct stat live {};
    int liveStatError = 0;
    m_file = openInput(m_filePath, &live, &liveStatError);
    if (m_file == nullptr) failTransaction(errno, "fopen ", m_filePath, " prepareSystemFiles");

    if (!m_origFilePath.empty()) {
        m_origFile = openInput(m_origFilePath, nullptr, nullptr);
        if (m_origFile == nullptr) failTransaction(errno, "fopen ", m_origFilePath, " prepareSystemFiles");
    }

    // Without root the update command installs the file and decides its owner and mode.
    if (!UserDefinition::GetUserDefinition().hasRootProfile()) return;

    if (liveStatError != 0) failTransaction(liveStatError, "fstat ", m_filePath, " prepareSystemFiles");
    if (fchown(tmp, live.st_uid, live.st_gid) != 0)
        failTransaction(errno, "fchown st_uid ", m_tmpFilePath, " prepareSystemFiles");
    if (fchmod(tmp, live.st_mode & 07777) != 0)
        failTransaction(errno, "fchmod st_mode ", m_tmpFilePath, " prepareSystemFiles");
}

void FileSystemUpdate::finalyzeSystemFiles() {
    completeTemporaries({this});
    install(*this, m_tmpFilePath);
    // After a rename there is nothing left; after the update command the copy goes here.
    (void)unlink(m_tmpFilePath.c_str());
}

void finalyzeSystemFilesTogether(const std::vector<FileSystemUpdate*>& files, const std::function<void()>& installed) {
    // Every new file is complete on disk before any is installed.
    completeTemporaries(files);
    // The live files as they were, kept just before each is replaced; a deque, since a kept file
    // never moves.  Without a step after them, the last file needs no keeping.
    std::deque<KeptFile> kept;
    // The account files share a directory: one sync of it makes all their renames survive a
    // power cut, where a sync after each rename costs a disk flush per file.  A cut before it
    // leaves the renames in the file system's order, as a cut between two syncs did.
    std::vector<std::string> renamedIn;
    for (std::size_t done = 0; done < files.size(); ++done) {
        FileSystemUpdate& t = *files[done];
        try {
            if (installed || done + 1 < files.size()) kept.emplace_back(t);
            install(t, t.m_tmpFilePath, &renamedIn);
        } catch (const std::exception& failure) {
            putBack(kept, done, failure.what());
            throw;
        }
        (void)unlink(t.m_tmpFilePath.c_str());
    }
    for (const std::string& directory : renamedIn) syncDirectory(directory);
    if (!installed) return;
    try {
        installed();
    } catch (const std::exception& failure) {
        putBack(kept, files.size(), failure.what());
        throw;
    }
}

void finalyzeSystemFilesTogether(FileSystemUpdate& first, FileSystemUpdate& second) {
    finalyzeSystemFilesTogether({&first, &second});
}

}  // namespace usermanagement
