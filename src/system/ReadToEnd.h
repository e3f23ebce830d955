// Reading a command's output stream to its end.
#pragma once

#include <cerrno>
#include <cstdio>
#include <string>

namespace usermanagement::detail {

// Reads `stream` until its end or a real read error, appending what it reads to `kept` unless
// that is null (the output is then discarded).  A read that a signal interrupts (EINTR: a
// handler the host installed without SA_RESTART) is taken up again: stopping there and
// closing the pipe would leave the command writing into a closed pipe, and SIGPIPE would end
// it half-way.  NUL bytes are kept as they are.
inline void readToEnd(std::FILE* stream, std::string* kept) {
    char piece[4096];
    for (;;) {
        const std::size_t got = std::fread(piece, 1, sizeof piece, stream);
        // Taken before the append, whose allocation may change errno even when it succeeds.
        const bool interrupted = got != sizeof piece && std::ferror(stream) && errno == EINTR;
        if (kept != nullptr) kept->append(piece, got);
        if (got == sizeof piece) continue;
        if (!interrupted) return;
        std::clearerr(stream);
    }
}

}  // namespace usermanagement::detail
