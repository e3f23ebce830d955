// The one copy loop behind every entry function of the account files.
//
//     copyEntries<PasswdFile>(transaction, [&](passwd& entry) { ...; return EntryAction::Write; },
//                             "removeEntryInPasswordFile", writeFailureMessage);
//     appendEntry<PasswdFile>(transaction, newEntry, newEntryFailureMessage);
//
// copyEntries reads the live file (transaction.m_file) entry by entry, lets `decide` change
// the entry in place, drop it or throw, and writes what is kept to the temporary file
// (transaction.m_tmpFile).  `decide` changes a field by pointing it elsewhere or setting a
// number, never by writing into the strings the entry points at.  Pointers that `decide` puts
// into the entry must stay valid until it returns the next time (point them at strings the
// caller owns, not at locals of the callback).
//
// Every line is accounted for.  The C library's entry readers silently skip what they cannot
// parse (a comment, a broken entry, a number out of range), and a rewrite would then drop
// that line for good: a hand-edited file would lose an account, or an account its password.
// So EntryReader reads the file line by line itself and hands each line alone to the reentrant
// parser; a non-blank line that does not parse as one whole entry stops the rewrite
// (UMSystemErrorException 10 naming the file and the line) before anything is installed.
// Blank lines carry nothing and are the only lines a rewrite leaves out.
//
// What a rewrite costs per line is kept small, since every create and remove copies the whole
// file:
//   - EntryReader takes the file in large pieces into a buffer of its own and parses each line
//     where it lies there; nothing is copied out line by line.
//   - Plain lines, nearly all of them, are split in place by EntryLines.h, which gives the same
//     fields as the C library without a stream per line.
//   - A plain line whose entry the decision left as it was (the same strings, the same numbers)
//     goes back into the file as the bytes read, one append: writing the entry again would
//     give those very bytes (EntryLines.h), so nothing is formatted.  A changed entry, and
//     every entry of a line the C library parsed, goes through the writer (appendPlain*, or
//     the C library's for what they decline), except a line kept as read (Keep).
//   - The kept lines are gathered and handed to the temporary file in large pieces
//     (EntryWriter).
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

// The files whose lines are all left to the C library.
struct NoPlainLine {
    void restore() const {}
};

struct PasswdFile {
    using Entry = struct passwd;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetpwent_r(line, &entry, buffer, size, result);
    }
    using Plain = PlainPasswdLine;
    static bool parsePlain(char* line, std::size_t size, Entry& entry, Plain& fields) {
        return parsePlainPasswd(line, size, entry, fields);
    }
    static bool same(const Entry& a, const Entry& b) { return sameEntry(a, b); }
    // Refuses (EINVAL, nothing written) a name holding ':' or a newline.
    static int write(const Entry& entry, FILE* file) { return putpwent(&entry, file); }
    static bool appendPlain(std::string& out, const Entry& entry) { return appendPlainPasswd(out, entry); }
};

struct ShadowFile {
    using Entry = struct spwd;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetspent_r(line, &entry, buffer, size, result);
    }
    using Plain = PlainShadowLine;
    static bool parsePlain(char* line, std::size_t size, Entry& entry, Plain& fields) {
        return parsePlainShadow(line, size, entry, fields);
    }
    static bool same(const Entry& a, const Entry& b) { return sameEntry(a, b); }
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
    using Plain = NoPlainLine;
    static bool parsePlain(char*, std::size_t, Entry&, Plain&) { return false; }
    static bool same(const Entry&, const Entry&) { return false; }
    static int write(const Entry& entry, FILE* file) { return putgrent(&entry, file); }
    static bool appendPlain(std::string&, const Entry&) { return false; }
};

// The group shadow file: member and administrator lists, read and written by the C library too.
struct GshadowFile {
    using Entry = struct sgrp;
    static int parse(FILE* line, Entry& entry, char* buffer, std::size_t size, Entry** result) {
        return fgetsgent_r(line, &entry, buffer, size, result);
    }
    using Plain = NoPlainLine;
    static bool parsePlain(char*, std::size_t, Entry&, Plain&) { return false; }
    static bool same(const Entry&, const Entry&) { return false; }
    static int write(const Entry& entry, FILE* file) { return putsgent(&entry, file); }
    static bool appendPlain(std::string&, const Entry&) { return false; }
};

// Longest entry line accepted; a longer one is reported as a read failure rather than
// silently dropped.
constexpr std::size_t kMaxEntryLine = 1u << 20;

// How much an EntryReader reads at first (most account files are smaller), and up to how much
// its buffer grows while the file goes on (more only for a line longer than half of it).
constexpr std::size_t kFirstRead = 4 * 1024;
constexpr std::size_t kReadBuffer = 32 * 1024;

// Reads the entries of one stream of a transaction (the live file or the reference copy),
// one line per entry.  `function` names the caller in the messages.
//
// The reader takes the stream's bytes in large pieces into a buffer of its own and finds the
// lines there: a line is parsed where it lies, not copied out first.  What it has
// taken beyond the last line it handed over goes back to the stream when the reader goes (the
// stream is left where a reader of one line at a time would leave it), so that a later reader
// of the same stream goes on from there.
template <class File>
class EntryReader {
public:
    EntryReader(FILE* source, const std::string& path, const char* function)
        : m_source(source), m_path(path), m_function(function), m_parseBuffer(1024) {
        if (m_source == nullptr) readFailure(EBADF);
    }
    ~EntryReader() {
        if (m_filled > m_start) (void)fseeko(m_source, -static_cast<off_t>(m_filled - m_start), SEEK_CUR);
        std::free(m_buffer);
    }
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;

    // The next entry, or null at the end of the file.  The entry points into the reader's
    // buffers and stays valid until the next call.
    typename File::Entry* next() {
        for (;;) {
            char* line = nullptr;
            std::size_t size = 0;
            if (!nextLine(line, size)) return nullptr;
            ++m_lineNumber;
            m_line = line;
            m_size = size;
            m_lineIntact = false;
            m_plainLine = false;
            if (isBlank(line, size)) continue;
            // A plain line holds no control character, so no NUL byte either.
            if (File::parsePlain(line, size, m_entry, m_fields)) {
                m_plainLine = true;
                m_parsed = m_entry;
                return &m_entry;
            }
            // A NUL byte would hide the rest of the line from the parser.
            if (std::memchr(line, '\0', size) != nullptr) refuseLine();
            // The C library's readers misread a last line without a newline that starts with a
            // blank: they double its last byte (" a:x:1:1::/:/bin/sh" gives the shell
            // "/bin/shh"), and a rewrite would store that.  The parser always gets the newline
            // (the buffer keeps room for it after the last line).
            if (line[size - 1] != '\n') {
                line[m_size++] = '\n';
                line[m_size] = '\0';
            }
            typename File::Entry* entry = parseLine(m_size);
            m_lineIntact = true;
            return entry;
        }
    }

    // The line of the last entry as read, when the C library parsed it and left it untouched
    // (null otherwise): with its newline, which a last line without one was given for the C
    // library's parser.
    const char* intactLine(std::size_t& size) const {
        size = m_size;
        return m_lineIntact ? m_line : nullptr;
    }

    // The line of the last entry exactly as read, when writing it again gives `entry`
    // (null otherwise): a plain line whose entry still holds the fields it was read into (the
    // same strings, the same numbers), or with `kept` a line the C library parsed (the caller
    // vouches that the entry is unchanged).  A plain line is put back together for this: its
    // entry's strings are gone until the next call.  A last line without newline comes without
    // one (or with the one the C library's parser was given).
    const char* unchangedLine(const typename File::Entry& entry, bool kept, std::size_t& size) {
        size = m_size;
        if (m_plainLine) {
            if (!File::same(entry, m_parsed)) return nullptr;
            m_fields.restore();
            m_plainLine = false;
            return m_line;
        }
        return kept && m_lineIntact ? m_line : nullptr;
    }

private:
    static bool isBlank(const char* line, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i)
            if (line[i] != ' ' && line[i] != '\t' && line[i] != '\n' && line[i] != '\r' && line[i] != '\v' &&
                line[i] != '\f')
                return false;
        return true;
    }

    // The next line of the buffer, its newline included, and behind it at least two bytes the
    // caller may write (a newline and a NUL for the last line).  False at the end of the file;
    // a read failure is reported once the lines read before it are handed over.
    bool nextLine(char*& line, std::size_t& size) {
        for (;;) {
            char* const begin = m_buffer + m_start;
            const std::size_t available = m_filled - m_start;
            const void* newline = available == 0 ? nullptr : std::memchr(begin, '\n', available);
            if (newline != nullptr) {
                size = static_cast<std::size_t>(static_cast<const char*>(newline) - begin) + 1;
            } else if (available > kMaxEntryLine) {
                readFailure(EFBIG);
            } else if (!m_atEnd) {
                fill();
                continue;
            } else if (available != 0 && m_readError == 0) {
                // The last line, without a newline.  After a read error the bytes left are where
                // the reading stopped, not the end of a line: the error is reported instead.
                size = available;
            } else {
                if (m_readError != 0) readFailure(m_readError);
                return false;
            }
            if (size > kMaxEntryLine) readFailure(EFBIG);
            line = begin;
            m_start += size;
            return true;
        }
    }

    // Moves the bytes not handed over yet to the front of the buffer, grows it, and reads the
    // next piece behind them.  The buffer starts small and doubles with every read up to
    // kReadBuffer, and beyond while the bytes not handed over fill half of it: a small file
    // costs a small buffer, a large one is read in large pieces.
    void fill() {
        if (m_start != 0) {
            std::memmove(m_buffer, m_buffer + m_start, m_filled - m_start);
            m_filled -= m_start;
            m_start = 0;
        }
        // The buffer's size without the two bytes behind the last line.
        std::size_t room = m_capacity == 0 ? kFirstRead : m_capacity - 2;
        if (m_capacity != 0 && room < kReadBuffer) room *= 2;
        while (room - m_filled < room / 2) room *= 2;
        if (room + 2 != m_capacity) {
            char* grown = static_cast<char*>(std::realloc(m_buffer, room + 2));
            if (grown == nullptr) readFailure(ENOMEM);
            m_buffer = grown;
            m_capacity = room + 2;
        }
        // Unlocked: while the reader reads, the stream is its own.  (A failure injected into the
        // file's read system call also reaches it so: the fault injection's wrapper of fread
        // lets the calls made inside it through.)
        errno = 0;
        const std::size_t wanted = m_capacity - m_filled - 2;
        const std::size_t got = fread_unlocked(m_buffer + m_filled, 1, wanted, m_source);
        m_filled += got;
        if (got < wanted) {
            m_atEnd = true;
            if (std::ferror(m_source) != 0) m_readError = errno != 0 ? errno : EIO;
        }
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
    char* m_buffer = nullptr;  // malloc'ed
    std::size_t m_capacity = 0;
    std::size_t m_start = 0;   // the first byte not handed over
    std::size_t m_filled = 0;  // the end of the bytes read
    bool m_atEnd = false;      // the stream has nothing more
    int m_readError = 0;       // why, when it failed
    char* m_line = nullptr;    // the last line handed over, in the buffer
    std::size_t m_size = 0;
    bool m_lineIntact = false;
    bool m_plainLine = false;  // the last line was split by File::parsePlain into m_fields
    unsigned long m_lineNumber = 0;
    std::vector<char> m_parseBuffer;
    typename File::Entry m_entry{};
    typename File::Entry m_parsed{};  // m_entry as the plain parser left it
    typename File::Plain m_fields;
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
        // Room for a small file whole; a larger one's lines grow it up to about kWriteChunk.
        // Taking a whole chunk for every rewrite of a small file would make the heap grow and
        // shrink each time.
        m_pending.reserve(kFirstRead);
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
        if (action == EntryAction::Drop) continue;
        std::size_t size = 0;
        if (const char* line = reader.unchangedLine(*entry, action == EntryAction::Keep, size))
            writer.writeLine(line, size);
        else
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
