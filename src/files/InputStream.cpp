// A read-only stream that reads its file in large chunks (see InputStream.h).
#include "files/InputStream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace usermanagement::detail {

namespace {

struct Input {
    int fd = -1;
    char* chunk = nullptr;     // kInputChunk bytes, malloc'ed
    std::size_t size = 0;      // bytes of the file in the chunk
    std::size_t position = 0;  // the next of them the stream hands out
    off64_t start = 0;         // offset in the file of chunk[0]; the descriptor is at start + size
};

ssize_t readInput(void* cookie, char* buffer, std::size_t wanted) {
    Input& input = *static_cast<Input*>(cookie);
    if (input.position == input.size) {
        input.start += static_cast<off64_t>(input.size);
        input.size = input.position = 0;
        ssize_t count = 0;
        do {
            count = read(input.fd, input.chunk, kInputChunk);
        } while (count < 0 && errno == EINTR);
        // The end of the file, or a failure with its errno: the stream reports either.
        if (count <= 0) return count;
        input.size = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(wanted, input.size - input.position);
    std::memcpy(buffer, input.chunk + input.position, count);
    input.position += count;
    return static_cast<ssize_t>(count);
}

int seekInput(void* cookie, off64_t* offset, int whence) {
    Input& input = *static_cast<Input*>(cookie);
    off64_t target = *offset;
    switch (whence) {
        case SEEK_SET:
            break;
        case SEEK_CUR:
            // Where the stream stands: the chunk knows, the descriptor need not be asked.
            target += input.start + static_cast<off64_t>(input.position);
            break;
        case SEEK_END:
            target = lseek(input.fd, *offset, SEEK_END);
            if (target < 0) return -1;
            input.start = target;
            input.size = input.position = 0;
            *offset = target;
            return 0;
        default:
            errno = EINVAL;
            return -1;
    }
    if (target < 0) {
        errno = EINVAL;
        return -1;
    }
    if (target >= input.start && target <= input.start + static_cast<off64_t>(input.size)) {
        input.position = static_cast<std::size_t>(target - input.start);
    } else {
        if (lseek(input.fd, target, SEEK_SET) < 0) return -1;
        input.start = target;
        input.size = input.position = 0;
    }
    *offset = target;
    return 0;
}

int closeInput(void* cookie) {
    Input* input = static_cast<Input*>(cookie);
    const int status = close(input->fd);
    std::free(input->chunk);
    delete input;
    return status;
}

}  // namespace

FILE* openInputStream(int fd) {
    Input* input = new (std::nothrow) Input;
    char* chunk = static_cast<char*>(std::malloc(kInputChunk));
    FILE* stream = nullptr;
    if (input != nullptr && chunk != nullptr) {
        input->fd = fd;
        input->chunk = chunk;
        const cookie_io_functions_t functions{readInput, nullptr, seekInput, closeInput};
        stream = fopencookie(input, "r", functions);
        if (stream != nullptr) return stream;
    }
    delete input;
    std::free(chunk);
    // Short of memory: the regular stream, which needs less of it.
    stream = fdopen(fd, "r");
    if (stream == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return stream;
}

}  // namespace usermanagement::detail
