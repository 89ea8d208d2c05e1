#include "nfs/nfs_file_handles.h"

#include <openssl/hmac.h>
#include <sys/random.h>

#include <cstring>

namespace vostra::data {
namespace {

void putU64(std::string& out, uint64_t value) {
    for (int shift = 56; shift >= 0; shift -= 8)
        out += static_cast<char>(value >> shift);
}

uint64_t getU64(std::string_view bytes) {
    uint64_t value = 0;
    for (char c : bytes.substr(0, 8))
        value = (value << 8) | static_cast<uint8_t>(c);
    return value;
}

}  // namespace

NfsFileHandles::NfsFileHandles() {
    std::size_t filled = 0;
    while (filled < sizeof secret_) {
        const ssize_t n = getrandom(secret_ + filled, sizeof secret_ - filled, 0);
        if (n > 0) filled += static_cast<std::size_t>(n);
    }
}

std::string NfsFileHandles::mac(uint64_t device, uint64_t inode) const {
    std::string message;
    putU64(message, device);
    putU64(message, inode);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    HMAC(EVP_sha256(), secret_, sizeof secret_, reinterpret_cast<const unsigned char*>(message.data()),
         message.size(), digest, &size);
    return std::string(reinterpret_cast<const char*>(digest), 8);
}

std::string NfsFileHandles::handleFor(const std::string& path, const struct stat& st) {
    std::string handle;
    putU64(handle, static_cast<uint64_t>(st.st_dev));
    putU64(handle, static_cast<uint64_t>(st.st_ino));
    handle += mac(st.st_dev, st.st_ino);
    std::lock_guard lock(mutex_);
    if (known_.size() >= kMaxRemembered) {
        std::size_t dropped = 0;
        for (auto it = known_.begin(); it != known_.end() && dropped < kMaxRemembered / 2;) {
            it = known_.erase(it);
            ++dropped;
        }
    }
    known_[handle] = Known{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino), path};
    return handle;
}

NfsFileHandles::Problem NfsFileHandles::resolve(std::string_view handle, std::string& path) const {
    if (handle.size() != kSize) return Problem::Bad;
    const uint64_t device = getU64(handle.substr(0, 8));
    const uint64_t inode = getU64(handle.substr(8, 8));
    const std::string expected = mac(device, inode);
    if (CRYPTO_memcmp(expected.data(), handle.data() + 16, 8) != 0) return Problem::Bad;
    std::lock_guard lock(mutex_);
    auto it = known_.find(std::string(handle));
    if (it == known_.end()) return Problem::Stale;
    path = it->second.path;
    return Problem::None;
}

bool NfsFileHandles::names(std::string_view handle, const struct stat& st) {
    return handle.size() == kSize && getU64(handle.substr(0, 8)) == static_cast<uint64_t>(st.st_dev) &&
           getU64(handle.substr(8, 8)) == static_cast<uint64_t>(st.st_ino);
}

void NfsFileHandles::moved(const std::string& from, const std::string& to) {
    std::lock_guard lock(mutex_);
    for (auto it = known_.begin(); it != known_.end();) {
        std::string& path = it->second.path;
        const bool below = path.size() > from.size() && path.starts_with(from) &&
                           path[from.size()] == '/';
        if (path == from || below) {
            if (to.empty() && path == from) {
                it = known_.erase(it);
                continue;
            }
            if (!to.empty()) path = to + path.substr(from.size());
        }
        ++it;
    }
}

}  // namespace vostra::data
