// NFS file handles of the built-in responder: opaque to clients and
// unforgeable. A handle is the file's device and inode number with a MAC
// made with a key drawn at start-up; the table maps each handle it gave out
// to the file's path below the export root. A handle that fails its MAC is
// bad; one the table does not know (given out before a restart, or of a
// file gone since) is stale. Thread-safe.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vostra::data {

class NfsFileHandles {
public:
    static constexpr std::size_t kSize = 24;
    // Paths remembered at most; the oldest half is forgotten beyond it (its
    // handles turn stale and clients look the files up again).
    static constexpr std::size_t kMaxRemembered = 1 << 20;

    NfsFileHandles();
    NfsFileHandles(const NfsFileHandles&) = delete;
    NfsFileHandles& operator=(const NfsFileHandles&) = delete;

    // The handle of the file at `path` (relative to the export root, "" for
    // the root) whose status is `st`; remembers the path.
    std::string handleFor(const std::string& path, const struct stat& st);

    enum class Problem { None, Bad, Stale };
    // The path a handle stands for.
    Problem resolve(std::string_view handle, std::string& path) const;

    // Whether `handle` was made for the file whose status is `st` (a path
    // may now hold another file).
    static bool names(std::string_view handle, const struct stat& st);

    // A file moved or went: handles of `from` (and, for a folder, of what
    // lies below it) now lead to `to`, or nowhere when `to` is empty.
    void moved(const std::string& from, const std::string& to);

private:
    std::string mac(uint64_t device, uint64_t inode) const;

    unsigned char secret_[32];
    mutable std::mutex mutex_;
    struct Known {
        uint64_t device;
        uint64_t inode;
        std::string path;
    };
    std::unordered_map<std::string, Known> known_;  // by handle
};

}  // namespace vostra::data
