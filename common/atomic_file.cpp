#include "common/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace vostra {
namespace {

// Temporaries are ".<name>.<random>" + this, so that no listing shows them
// and no client can name one (storage refuses the suffix).
constexpr std::string_view kPendingSuffix = ".vostra-part";

Status failed(const std::string& what, const std::string& path, int error) {
    return Status::failure(ErrorKind::Internal,
                           "Cannot " + what + " " + path + ": " + std::strerror(error));
}

std::string folderOf(const std::string& path) {
    const std::filesystem::path target(path);
    return target.has_parent_path() ? target.parent_path().string() : std::string(".");
}

}  // namespace

PendingFile::PendingFile(PendingFile&& other) noexcept { *this = std::move(other); }

PendingFile& PendingFile::operator=(PendingFile&& other) noexcept {
    if (this != &other) {
        if (!temporary_.empty()) unlink(temporary_.c_str());
        path_ = std::move(other.path_);
        temporary_ = std::exchange(other.temporary_, std::string());
    }
    return *this;
}

PendingFile::~PendingFile() {
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

bool PendingFile::isPendingName(std::string_view name) {
    return name.starts_with('.') && name.ends_with(kPendingSuffix);
}

Status PendingFile::write(const std::string& path, std::string_view content, mode_t mode,
                          bool durable, PendingFile& out) {
    const std::string name = std::filesystem::path(path).filename().string();
    // A unique name, so two writers of one file never share a temporary.
    std::string temporary =
        folderOf(path) + "/." + name + ".XXXXXX" + std::string(kPendingSuffix);
    const int fd = mkostemps(temporary.data(), static_cast<int>(kPendingSuffix.size()), O_CLOEXEC);
    if (fd < 0) return failed("create a temporary file for", path, errno);

    const auto abandon = [&](const char* what) {
        const int error = errno;
        close(fd);
        unlink(temporary.c_str());
        return failed(what, path, error);
    };
    if (fchmod(fd, mode) != 0) return abandon("set the mode of");
    for (std::size_t written = 0; written < content.size();) {
        const ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return abandon("write");
        }
        written += static_cast<std::size_t>(n);
    }
    if (durable && fsync(fd) != 0) return abandon("flush");
    // close() reports what a full disk left for the last moment (NFS and
    // some file systems report write errors only here).
    if (close(fd) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return failed("close", path, error);
    }
    out = PendingFile();
    out.path_ = path;
    out.temporary_ = std::move(temporary);
    return Status::success();
}

Status PendingFile::commit() {
    if (temporary_.empty()) return Status::failure(ErrorKind::Internal, "Nothing to commit for " + path_);
    if (rename(temporary_.c_str(), path_.c_str()) != 0) return failed("replace", path_, errno);
    temporary_.clear();
    return Status::success();
}

Status syncFolderOf(const std::string& path) {
    const int dir = open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return failed("open the folder of", path, errno);
    const int synced = fsync(dir);
    const int error = errno;
    close(dir);
    if (synced != 0) return failed("flush the folder of", path, error);
    return Status::success();
}

Status writeFileAtomically(const std::string& path, std::string_view content, mode_t mode,
                           bool durable) {
    PendingFile pending;
    if (Status written = PendingFile::write(path, content, mode, durable, pending); !written)
        return written;
    if (Status committed = pending.commit(); !committed) return committed;
    return durable ? syncFolderOf(path) : Status::success();
}

}  // namespace vostra
