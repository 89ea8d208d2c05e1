// A regular file opened for reading, to be streamed rather than loaded into
// memory. Owns its descriptor (-1: none). Movable, not copyable; not
// thread-safe.
#pragma once

#include <cstdint>
#include <utility>

namespace vostra::data {

class OpenedFile {
public:
    OpenedFile() = default;
    OpenedFile(int fd, uint64_t size) : fd_(fd), size_(size) {}
    OpenedFile(OpenedFile&& other) noexcept { *this = std::move(other); }
    OpenedFile& operator=(OpenedFile&& other) noexcept;
    ~OpenedFile();
    OpenedFile(const OpenedFile&) = delete;
    OpenedFile& operator=(const OpenedFile&) = delete;

    int fd() const { return fd_; }
    // Gives up ownership: the descriptor is the caller's to close.
    int release() { return std::exchange(fd_, -1); }
    uint64_t size() const { return size_; }

private:
    int fd_ = -1;
    uint64_t size_ = 0;
};

}  // namespace vostra::data
