// Owner of one file descriptor: closed when the owner goes, on every path out.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace usermanagement::detail {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }
    // Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) noexcept {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

// Writes all `size` bytes of `data` to `fd`, retrying short and interrupted writes; false (with
// errno) at the first failure.
inline bool writeAll(int fd, const char* data, std::size_t size) noexcept {
    for (std::size_t done = 0; done < size;) {
        const ssize_t written = ::write(fd, data + done, size - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace usermanagement::detail
