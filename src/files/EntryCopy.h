// The one copy loop behind every entry function of the account files.
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
// Every line is accounted for.  The C library's entry readers silently skip what they cannot
// parse (a comment, a broken entry, a number out of range), and a rewrite would then drop
// that line for good: a hand-edited file would lose an account, or an account its password.
// So EntryReader reads the file line by line itself and hands each line alone to the reentrant
// parser; a non-blank line that does not parse as one whole entry stops the rewrite
// (UMSystemErrorException 10 naming the file and the line) before anything is installed.
// Blank lines carry nothing and are the only lines a rewrite leaves out.
//
// Plain lines and entries, nearly all of them, are parsed and written by EntryLines.h, which
// gives the same fields and bytes as the C library without a stream per line; the kept lines
// are gathered and handed to the temporary file in large pieces (EntryWriter).
#pragma once

#include <grp.h>
#include <gshadow.h>
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>

#include "files/EntryLines.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

// Write: the entry as the decision left it, through the file's writer.  Drop: nothing.
// Keep: the line exactly as it was read, for an entry the decision did not change.  The C
// library's group writer does not give every line back as it was ("+name:x:10:" loses its
// gid, "0010" becomes "10"), and a rewrite must not change lines it had no business with.
// Keep is honoured for lines the C library parsed (group and group shadow lines); for the
// others it is Write, whose plain lines are written back as read anyway.
enum class EntryAction { Write, Drop, Keep };

struct PasswdFile {
    using Entry = struct passwd;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetpwent_r(line, &entry, buffer, size, result);
    }
    static bool parsePlain(char* line, std::size_t size, Entry& entry) { return parsePlainPasswd(line, size, entry); }
    // Refuses (EINVAL, nothing written) a name holding ':' or a newline.
    static int write(const Entry& entry, FILE* file) { return putpwent(&entry, file); }
    static bool appendPlain(std::string& out, const Entry& entry) { return appendPlainPasswd(out, entry); }
};

struct ShadowFile {
    using Entry = struct spwd;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetspent_r(line, &entry, buffer, size, result);
    }
    static bool parsePlain(char* line, std::size_t size, Entry& entry) { return parsePlainShadow(line, size, entry); }
    // Writes -1 fields empty; refuses (EINVAL, nothing written) a name or password field
    // holding ':' or a newline.
    static int write(const Entry& entry, FILE* file) { return putspent(&entry, file); }
    static bool appendPlain(std::string& out, const Entry& entry) { return appendPlainShadow(out, entry); }
};

// Group lines are few and hold member lists: the C library reads and writes them all.
struct GroupFile {
    using Entry = struct group;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetgrent_r(line, &entry, buffer, size, result);
    }
    static bool parsePlain(char*, std::size_t, Entry&) { return false; }
    static int write(const Entry& entry, FILE* file) { return putgrent(&entry, file); }
    static bool appendPlain(std::string&, const Entry&) { return false; }
};

// The group shadow file: member and administrator lists, read and written by the C library too.
struct GshadowFile {
    using Entry = struct sgrp;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetsgent_r(line, &entry, buffer, size, result);
    }
    static bool parsePlain(char*, std::size_t, Entry&) { return false; }
    static int write(const Entry& entry, FILE* file) { return putsgent(&entry, file); }
    static bool appendPlain(std::string&, const Entry&) { return false; }
};

// Longest entry line accepted; a longer one is reported as a read failure rather than
// silently dropped.
constexpr std::size_t kMaxEntryLine = 1u << 20;

// Reads the entries of one stream of a transaction (the live file or the reference copy),
// one line per entry.  `function` names the caller in the messages.
template <class File>
class EntryReader {
public:
    EntryReader(FILE* source, const std::string& path, const char* function)
        : m_source(source), m_path(path), m_function(function), m_parseBuffer(1024) {
        if (m_source == nullptr) readFailure(EBADF);
    }
    ~EntryReader() { std::free(m_line); }
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;

    // The next entry, or null at the end of the file.  The entry points into the reader's
    // buffers and stays valid until the next call.
    typename File::Entry* next() {
        for (;;) {
            errno = 0;
            const ssize_t length = getline(&m_line, &m_capacity, m_source);
            if (length < 0) {
                // errno stays 0 at the end of the file; a read error or a failed allocation sets it.
                if (std::ferror(m_source) != 0 || errno != 0) readFailure(errno);
                return nullptr;
            }
            ++m_lineNumber;
            const std::size_t size = static_cast<std::size_t>(length);
            m_size = size;
            m_lineIntact = false;
            if (size > kMaxEntryLine) readFailure(EFBIG);
            if (isBlank(m_line, size)) continue;
            // A plain line holds no control character, so no NUL byte either.
            if (File::parsePlain(m_line, size, m_entry)) return &m_entry;
            // A NUL byte would hide the rest of the line from the parser.
            if (std::memchr(m_line, '\0', size) != nullptr) refuseLine();
            // The C library's readers misread a last line without a newline that starts with a
            // blank: they double its last byte (" a:x:1:1::/:/bin/sh" gives the shell
            // "/bin/shh"), and a rewrite would store that.  The parser always gets the newline.
            if (m_line[size - 1] != '\n') terminateLine();
            typename File::Entry* entry = parseLine(m_size);
            m_lineIntact = true;
            return entry;
        }
    }

    // The line of the last entry as read, when the parse left it untouched (null otherwise):
    // with its newline, which a last line without one was given for the C library's parser.
    const char* intactLine(std::size_t& size) const {
        size = m_size;
        return m_lineIntact ? m_line : nullptr;
    }

private:
    static bool isBlank(const char* line, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i)
            if (line[i] != ' ' && line[i] != '\t' && line[i] != '\n' && line[i] != '\r' && line[i] != '\v' &&
                line[i] != '\f')
                return false;
        return true;
    }

    // Adds the newline the file's last line lacks (the line as read stays its first bytes).
    void terminateLine() {
        if (m_capacity < m_size + 2) {
            char* grown = static_cast<char*>(std::realloc(m_line, m_size + 2));
            if (grown == nullptr) readFailure(ENOMEM);
            m_line = grown;
            m_capacity = m_size + 2;
        }
        m_line[m_size++] = '\n';
        m_line[m_size] = '\0';
    }

    [[noreturn]] void readFailure(int error) const {
        raiseErrno<UMSystemErrorException>(error, UMSystemError::FileContents, m_function, " error in reading ",
                                           m_path);
    }

    [[noreturn]] void refuseLine() const {
        raise<UMSystemErrorException>(UMSystemError::FileContents, m_function, " error, line ", m_lineNumber, " of ",
                                      m_path, " is no valid entry; the file is not rewritten");
    }

    // The line alone, as a stream of its own: the parser can skip nothing but this line, and a
    // skipped line is a refused one.
    typename File::Entry* parseLine(std::size_t size) {
        FILE* line = fmemopen(m_line, size, "r");
        if (line == nullptr) readFailure(errno);
        struct Closer {
            FILE* stream;
            ~Closer() { std::fclose(stream); }
        } closer{line};
        for (;;) {
            typename File::Entry* result = nullptr;
            const int status = File::parse(line, m_entry, m_parseBuffer.data(), m_parseBuffer.size(), &result);
            if (status == ERANGE && m_parseBuffer.size() < 2 * kMaxEntryLine) {
                // The entry needs more room than the buffer has (a group's member list takes a
                // pointer per member): parse the line again with twice the room.
                m_parseBuffer.resize(m_parseBuffer.size() * 2);
                std::rewind(line);
                continue;
            }
            if (status != 0 || result == nullptr) refuseLine();
            return result;
        }
    }

    FILE* m_source;
    const std::string m_path;
    const char* m_function;
    char* m_line = nullptr;  // getline's buffer, malloc'ed
    std::size_t m_capacity = 0;
    std::size_t m_size = 0;
    bool m_lineIntact = false;
    unsigned long m_lineNumber = 0;
    std::vector<char> m_parseBuffer;
    typename File::Entry m_entry{};
};

// How much an EntryWriter gathers before it hands the lines to the stream.
constexpr std::size_t kWriteChunk = 64 * 1024;

// Writes entries to the temporary file of a transaction.  The lines are gathered and handed to
// the stream in pieces of about kWriteChunk bytes: a piece larger than the stream's buffer
// goes to the file in one write system call rather than one per buffer.  Every failure throws
// UMSystemErrorException 10 with `writeFailure` and the reason; lines still gathered when the
// writer goes without flush() are dropped (the transaction is failing then).
//
// So a full disk shows where it showed before: a file larger than the stream's buffer meets it
// while its entries are written, a smaller one in the flush before installation.
template <class File>
class EntryWriter {
public:
    EntryWriter(FILE* target, const std::string& writeFailure) : m_target(target), m_writeFailure(writeFailure) {
        if (m_target == nullptr) raiseErrno<UMSystemErrorException>(EBADF, UMSystemError::FileContents, writeFailure);
        m_pending.reserve(kWriteChunk + 4096);
    }
    EntryWriter(const EntryWriter&) = delete;
    EntryWriter& operator=(const EntryWriter&) = delete;

    void write(const typename File::Entry& entry) {
        if (!File::appendPlain(m_pending, entry)) {
            // The C library's writer decides what such an entry becomes, after what came before.
            flush();
            if (File::write(entry, m_target) != 0) fail(errno);
        }
        if (m_pending.size() >= kWriteChunk) flush();
    }

    // A line as it was read, with a newline added when the file's last line had none.
    void writeLine(const char* line, std::size_t size) {
        m_pending.append(line, size);
        if (size == 0 || line[size - 1] != '\n') m_pending += '\n';
        if (m_pending.size() >= kWriteChunk) flush();
    }

    // Hands what is gathered to the stream (which may keep up to a buffer of it).
    void flush() {
        if (m_pending.empty()) return;
        errno = 0;
        const std::size_t written = std::fwrite(m_pending.data(), 1, m_pending.size(), m_target);
        if (written != m_pending.size()) fail(errno != 0 ? errno : EIO);
        m_pending.clear();
    }

private:
    [[noreturn]] void fail(int error) const {
        raiseErrno<UMSystemErrorException>(error, UMSystemError::FileContents, m_writeFailure);
    }

    FILE* m_target;
    const std::string& m_writeFailure;
    std::string m_pending;
};

template <class File>
void appendEntry(FileSystemUpdate& transaction, const typename File::Entry& entry, const std::string& writeFailure) {
    EntryWriter<File> writer(transaction.m_tmpFile, writeFailure);
    writer.write(entry);
    writer.flush();
}

// The loop over any input stream of the transaction (the live file or the reference copy):
// `source` is read from where it stands, `path` names it in the messages.
template <class File, class Decide>
void copyEntriesFrom(FileSystemUpdate& transaction, FILE* source, const std::string& path, Decide&& decide,
                     const char* function, const std::string& writeFailure) {
    EntryReader<File> reader(source, path, function);
    EntryWriter<File> writer(transaction.m_tmpFile, writeFailure);
    while (typename File::Entry* entry = reader.next()) {
        const EntryAction action = decide(*entry);
        std::size_t size = 0;
        const char* line = action == EntryAction::Keep ? reader.intactLine(size) : nullptr;
        if (line != nullptr)
            writer.writeLine(line, size);
        else if (action != EntryAction::Drop)
            writer.write(*entry);
    }
    writer.flush();
}

// `function` names the caller in the message of a read failure: function + " error in
// reading " + live path (UMSystemErrorException 10).  Write failures throw `writeFailure`.
template <class File, class Decide>
void copyEntries(FileSystemUpdate& transaction, Decide&& decide, const char* function,
                 const std::string& writeFailure) {
    copyEntriesFrom<File>(transaction, transaction.m_file, transaction.m_filePath, std::forward<Decide>(decide),
                          function, writeFailure);
}

}  // namespace usermanagement::detail
