// One account file (passwd, shadow or group) rewritten as a transaction.
//
// The live file is never edited in place.  The object takes the system password-file lock
// (when asked to), opens the live file for reading and a temporary file next to it for
// writing; the entry functions (PasswdEntries.h, ShadowEntries.h) copy every entry across,
// changing, adding or leaving out entries on the way; finalyzeSystemFiles() flushes the
// temporary file to disk and installs it in one step.  Whatever happens, destruction closes
// the streams, removes the temporary file and releases the lock the object took:
//
//     FileSystemUpdate passwd(d.getPasswordFilePath(), d.getPasswordTmpFilePath(), true);
//     FileSystemUpdate shadow(d.getShadowFilePath(), d.getShadowTmpFilePath(), false);
//     passwd.prepareSystemFiles();
//     shadow.prepareSystemFiles();
//     ...one entry function per transaction...
//     finalyzeSystemFilesTogether(passwd, shadow);
//
// Installation: as root (UserDefinition::hasRootProfile()) the temporary file is renamed over
// the live one, so both must lie on the same file system; otherwise the configured update
// command (getUpdateFileScript()) is run with both paths.
//
// The temporary file is always a fresh regular file of the transaction's own: whatever its
// name holds (a leftover, a planted link) is removed and the file is created exclusively with
// mode 0600, without following links and without touching the process's creation mask.  A
// temporary path that names the live file or the reference copy, directly or through links,
// is refused (UMSystemErrorException 13) before the lock is taken.  A live file that is a
// symbolic link stays one: the file it leads to is replaced, so the temporary file must lie
// on that file's file system.
//
// An operation that changes several files installs them with finalyzeSystemFilesTogether(), as
// above, which puts every file installed back when a later one cannot be installed; a single
// file is installed with its own finalyzeSystemFiles().
//
// The lock is the one lckpwdf takes (a write lock on /etc/.pwd.lock, so shadow-utils and PAM
// modules are excluded), taken without lckpwdf's alarm signal; it is process-wide and can be
// held once: among the transactions of one operation exactly the first is built with `lock`
// true.  A lock-taking transaction waits, on its own thread, up to 15 seconds for a lock held by
// another thread or process; a second one on the thread that holds the lock fails at once.
// Both fail with UMSystemErrorException 11.  Every other failure is UMSystemErrorException 13.  An object is
// created, used and destroyed by one thread.
//
// The data members and their order are part of the binary interface; the entry functions use
// the streams directly.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <usermanagement/Export.h>

namespace usermanagement {

class TVC_UM_EXPORT FileSystemUpdate {
public:
    // Takes the password-file lock when `lock` is true (UMSystemErrorException 11 when it
    // cannot be had); opens nothing.  A temporary path that names the live file or the
    // reference copy is refused first (UMSystemErrorException 13).
    FileSystemUpdate(std::string filePath, std::string tmpFilePath, bool lock);
    // As above, with a read-only reference copy that prepareSystemFiles() opens as well.
    FileSystemUpdate(std::string filePath, std::string tmpFilePath, std::string origFilePath, bool lock);
    // Closes what is open (never the process's getpwent/getgrent/getspent streams), removes
    // the temporary file (also a stale one when nothing was prepared) and releases the lock
    // the object took.  Never throws.
    ~FileSystemUpdate();

    // The object owns streams, a lock and a file name on disk: one owner only.
    FileSystemUpdate(const FileSystemUpdate&) = delete;
    FileSystemUpdate& operator=(const FileSystemUpdate&) = delete;
    FileSystemUpdate(FileSystemUpdate&&) = delete;
    FileSystemUpdate& operator=(FileSystemUpdate&&) = delete;

    // Creates the temporary file afresh with mode 0600, opens the live file and the reference
    // copy for reading; as root, gives the temporary file the live file's owner, group and
    // mode.  The live file is not written.
    void prepareSystemFiles();
    // Closes the live file and the reference copy, flushes, syncs and closes the temporary
    // file and installs it.  The lock stays held until destruction.
    void finalyzeSystemFiles();

    std::string m_filePath;
    std::string m_tmpFilePath;
    // Empty when the object has no reference copy.
    std::string m_origFilePath;
    // Live file, read-only; null before prepareSystemFiles() and after it was closed.  A stream
    // of the library's own that reads the file in large chunks: it reads, reports read errors
    // and repositions as one from fopen, but has no descriptor (fileno() is -1).
    FILE* m_file;
    // Temporary file, "w"; null before prepareSystemFiles() and after it was closed.
    FILE* m_tmpFile;
    // Reference copy, read-only, a stream like m_file; null unless m_origFilePath is set and the
    // file is open.
    FILE* m_origFile;
    // The object took the password-file lock and releases it on destruction.
    bool m_lock;
};

// Finalizes the prepared transactions of one operation, in their order (password file, shadow
// file, group file, ...), so that the operation succeeds or fails whole: every temporary file
// is flushed and synced before any is installed, and the live file of each but the last is
// kept aside until the files after it are installed.  When one cannot be kept or installed,
// those installed before it are put back as they were, the last installed first, and its
// failure is thrown; when one of them cannot be put back either, UMSystemErrorException 13
// names both.  A kept file lies next to the temporary file of its transaction (its name
// followed by ".old") and is removed on every way out.  `installed`, when given, runs once
// every file is installed, with every file still kept: when it throws, all are put back and
// its exception is thrown (a step that needs the new files in place, yet belongs to the
// operation).
TVC_UM_EXPORT void finalyzeSystemFilesTogether(const std::vector<FileSystemUpdate*>& files,
                                               const std::function<void()>& installed = {});
// The same for two transactions (password file, then shadow file).
TVC_UM_EXPORT void finalyzeSystemFilesTogether(FileSystemUpdate& first, FileSystemUpdate& second);

}  // namespace usermanagement
