// The input side of a transaction: the live file (and the reference copy) as a read-only FILE*
// that reads its file in large chunks.
//
// A regular stream reads one file-system block (4 KiB) per read system call, so copying an
// account file of megabytes costs thousands of them.  This stream reads kInputChunk bytes at a
// time into a buffer of its own; the buffer and the descriptor belong to the stream and go with
// fclose (made with fopencookie), so nothing has to outlive or accompany the FILE*: the
// transaction's members are fixed by the binary interface.  The chunk stays small enough to
// stay in the processor's cache, which reading the whole file at once would not: that measured
// slower than the regular stream.
//
// For its readers the stream behaves as a regular one:
//   - a failed read shows on the stream where it happens, with its errno (an interrupted read
//     is retried);
//   - it can be repositioned (fseek, rewind, ftello); asking for the position costs no system
//     call, as the C library's reentrant entry readers do once per entry;
//   - fileno() is -1: the descriptor is the stream's own.
#pragma once

#include <cstddef>
#include <cstdio>

namespace usermanagement::detail {

constexpr std::size_t kInputChunk = 32 * 1024;

// A read-only stream on the open descriptor `fd`, from its current offset; `fd` belongs to the
// call in every case.  Without memory for the chunk buffer, a regular stream on `fd`.  Null with
// errno when no stream can be made.
FILE* openInputStream(int fd);

}  // namespace usermanagement::detail
