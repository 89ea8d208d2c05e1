#include "storage/opened_file.h"

#include <unistd.h>

#include <utility>

namespace vostra::data {

OpenedFile& OpenedFile::operator=(OpenedFile&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

OpenedFile::~OpenedFile() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace vostra::data
