// The one copy loop behind every entry function of the passwd and shadow files.
//
//     copyEntries<PasswdFile>(transaction, [&](passwd& entry) { ...; return EntryAction::Write; },
//                             "removeEntryInPasswordFile", writeFailureMessage);
//     appendEntry<PasswdFile>(transaction, newEntry, newEntryFailureMessage);
//
// copyEntries reads the live file (transaction.m_file) entry by entry, lets `decide` change
// the entry in place, drop it or throw, and writes what is kept to the temporary file
// (transaction.m_tmpFile).  Pointers that `decide` puts into the entry must stay valid until
// it returns the next time (point them at strings the caller owns, not at locals of the
// callback).
//
// The reentrant readers (fgetpwent_r, fgetspent_r) are used with a buffer of the loop's own:
// the plain readers share one static buffer per process, and only the reentrant ones tell a
// read error from the end of the file.  The readers skip lines they cannot parse (comments,
// malformed entries), so such lines do not survive a rewrite.
#pragma once

#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

enum class EntryAction { Write, Drop };

struct PasswdFile {
    using Entry = struct passwd;
    static int read(FILE* file, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetpwent_r(file, &entry, buffer, size, result);
    }
    // Refuses (EINVAL, nothing written) a name holding ':' or a newline.
    static int write(const Entry& entry, FILE* file) { return putpwent(&entry, file); }
};

struct ShadowFile {
    using Entry = struct spwd;
    static int read(FILE* file, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetspent_r(file, &entry, buffer, size, result);
    }
    // Writes -1 fields empty; refuses (EINVAL, nothing written) a name or password field
    // holding ':' or a newline.
    static int write(const Entry& entry, FILE* file) { return putspent(&entry, file); }
};

// Longest entry line accepted; a longer one is reported as a read failure rather than
// silently dropped.
constexpr std::size_t kMaxEntryLine = 1u << 20;

template <class File>
void appendEntry(FileSystemUpdate& transaction, const typename File::Entry& entry,
                 const std::string& writeFailure) {
    if (transaction.m_tmpFile == nullptr || File::write(entry, transaction.m_tmpFile) != 0)
        raise<UMSystemErrorException>(10, writeFailure);
}

// `function` names the caller in the message of a read failure: function + " error in
// reading " + live path (UMSystemErrorException 10).  Write failures throw `writeFailure`.
template <class File, class Decide>
void copyEntries(FileSystemUpdate& transaction, Decide&& decide, const char* function,
                 const std::string& writeFailure) {
    if (transaction.m_file == nullptr)
        raise<UMSystemErrorException>(10, function, " error in reading ", transaction.m_filePath);
    std::vector<char> buffer(1024);
    typename File::Entry entry{};
    for (;;) {
        typename File::Entry* result = nullptr;
        const int status = File::read(transaction.m_file, entry, buffer.data(), buffer.size(), &result);
        if (status == ERANGE && buffer.size() < kMaxEntryLine) {
            // The reader went back to the start of the line: read it again with more room.
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status == ENOENT && !std::ferror(transaction.m_file)) return;
        if (status != 0 || result == nullptr)
            raise<UMSystemErrorException>(10, function, " error in reading ", transaction.m_filePath);
        if (decide(entry) == EntryAction::Write) appendEntry<File>(transaction, entry, writeFailure);
    }
}

}  // namespace usermanagement::detail
