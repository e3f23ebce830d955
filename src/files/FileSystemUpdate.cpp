// The account-file transaction.  Order of events that keeps the live file safe: the new
// contents go to a temporary file, which is flushed and synced before anything replaces the
// live file, and replacing is one rename (atomic on one file system) or the update command.
#include <usermanagement/FileSystemUpdate.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "foundation/Raise.h"

namespace usermanagement {

namespace {

using detail::raise;

void closeStream(FILE*& stream) {
    if (stream != nullptr) {
        std::fclose(stream);
        stream = nullptr;
    }
}

// The directory entry written by rename only survives a power cut once the directory itself
// is synced.  The new file is in place either way, so a failure here is not reported.
void syncParentDirectory(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)fsync(fd);
    close(fd);
}

}  // namespace

FileSystemUpdate::FileSystemUpdate(std::string filePath, std::string tmpFilePath, bool lock)
    : FileSystemUpdate(std::move(filePath), std::move(tmpFilePath), std::string(), lock) {}

FileSystemUpdate::FileSystemUpdate(std::string filePath, std::string tmpFilePath, std::string origFilePath,
                                   bool lock)
    : m_filePath(std::move(filePath)),
      m_tmpFilePath(std::move(tmpFilePath)),
      m_origFilePath(std::move(origFilePath)),
      m_file(nullptr),
      m_tmpFile(nullptr),
      m_origFile(nullptr),
      m_lock(lock) {
    // No retry of our own: lckpwdf already waits for a holder in another process.  When this
    // throws, no object exists and its destructor (which would unlink the temporary path of
    // whoever holds the lock) does not run.
    if (lock && lckpwdf() != 0)
        raise<UMSystemErrorException>(11, "FileSystemUpdate:password files locked (", m_filePath, ")");
}

FileSystemUpdate::~FileSystemUpdate() {
    endgrent();
    endpwent();
    endspent();
    closeStream(m_tmpFile);
    closeStream(m_file);
    closeStream(m_origFile);
    (void)unlink(m_tmpFilePath.c_str());
    if (m_lock) (void)ulckpwdf();
}

void FileSystemUpdate::prepareSystemFiles() {
    // A second preparation starts over rather than leaking the first one's streams.
    closeStream(m_tmpFile);
    closeStream(m_file);
    closeStream(m_origFile);

    // The streams are close-on-exec ("e"): a child process started meanwhile by another
    // thread of the host must not inherit a descriptor on the shadow file.  The mask makes a
    // newly created temporary file 0600 from its first moment, before fchmod below.
    const mode_t previousMask = umask(077);
    m_tmpFile = std::fopen(m_tmpFilePath.c_str(), "we");
    umask(previousMask);
    if (m_tmpFile == nullptr) raise<UMSystemErrorException>(13, "fopen ", m_tmpFilePath, " prepareSystemFiles");

    m_file = std::fopen(m_filePath.c_str(), "re");
    if (m_file == nullptr) raise<UMSystemErrorException>(13, "fopen ", m_filePath, " prepareSystemFiles");

    if (!m_origFilePath.empty()) {
        m_origFile = std::fopen(m_origFilePath.c_str(), "re");
        if (m_origFile == nullptr)
            raise<UMSystemErrorException>(13, "fopen ", m_origFilePath, " prepareSystemFiles");
    }

    // Without root the update command installs the file and decides its owner and mode.
    if (!UserDefinition::GetUserDefinition().hasRootProfile()) return;

    struct stat live {};
    if (fstat(fileno(m_file), &live) != 0)
        raise<UMSystemErrorException>(13, "fstat ", m_filePath, " prepareSystemFiles");
    const int tmp = fileno(m_tmpFile);
    if (fchown(tmp, live.st_uid, live.st_gid) != 0)
        raise<UMSystemErrorException>(13, "fchown st_uid ", m_tmpFilePath, " prepareSystemFiles");
    if (fchmod(tmp, live.st_mode & 07777) != 0)
        raise<UMSystemErrorException>(13, "fchmod st_mode ", m_tmpFilePath, " prepareSystemFiles");
}

void FileSystemUpdate::finalyzeSystemFiles() {
    closeStream(m_file);
    closeStream(m_origFile);

    // ferror: a write that failed earlier may have dropped buffered entries while a later
    // flush succeeds; such a file is incomplete and must not replace the live one.
    if (m_tmpFile == nullptr || std::ferror(m_tmpFile) != 0 || std::fflush(m_tmpFile) != 0 ||
        fsync(fileno(m_tmpFile)) != 0) {
        closeStream(m_tmpFile);
        raise<UMSystemErrorException>(13, "fflush or fsync error of:", m_tmpFilePath);
    }
    const int closed = std::fclose(m_tmpFile);
    m_tmpFile = nullptr;
    if (closed != 0) raise<UMSystemErrorException>(13, "fclose error of:", m_tmpFilePath);

    UserDefinition& definition = UserDefinition::GetUserDefinition();
    if (definition.hasRootProfile()) {
        if (rename(m_tmpFilePath.c_str(), m_filePath.c_str()) != 0) {
            const int error = errno;
            raise<UMSystemErrorException>(13, "rename error of:", m_tmpFilePath, " to ", m_filePath, " ", error,
                                          std::strerror(error));
        }
        syncParentDirectory(m_filePath);
    } else {
        // The command line is the configured script text followed by the two paths exactly as
        // the configuration gives them, run by the shell: that is the interface of the update
        // command.  The paths are the host's own configuration, not user input; a host that
        // configures paths with blanks or shell characters must quote them itself.
        const std::string command =
            std::string(definition.getUpdateFileScript()) + m_tmpFilePath + " " + m_filePath;
        const int status = std::system(command.c_str());
        const int error = errno;
        if (status != 0)
            raise<UMSystemErrorException>(13, "Script update error ", status, " of:", m_tmpFilePath, " to ",
                                          m_filePath, " ", error, std::strerror(error));
    }
    (void)unlink(m_tmpFilePath.c_str());
}

}  // namespace usermanagement
