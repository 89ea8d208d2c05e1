#include "common/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace vostra {
namespace {

Status failed(const std::string& what, const std::string& path, int error) {
    return Status::failure(ErrorKind::Internal,
                           "Cannot " + what + " " + path + ": " + std::strerror(error));
}

}  // namespace

Status writeFileAtomically(const std::string& path, std::string_view content, mode_t mode) {
    const std::filesystem::path target(path);
    const std::string folder =
        target.has_parent_path() ? target.parent_path().string() : std::string(".");
    // A unique name, so two writers of one file never share a temporary.
    std::string temporary = folder + "/." + target.filename().string() + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return failed("create a temporary file for", path, errno);

    const auto abandon = [&](const char* what) {
        const int error = errno;
        close(fd);
        unlink(temporary.c_str());
        return failed(what, path, error);
    };
    // mkostemp creates 0600; the caller's mode is set explicitly, since the
    // umask must not widen or narrow what the caller asked for.
    if (fchmod(fd, mode) != 0) return abandon("set the mode of");
    for (std::size_t written = 0; written < content.size();) {
        const ssize_t n = write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return abandon("write");
        }
        written += static_cast<std::size_t>(n);
    }
    if (fsync(fd) != 0) return abandon("flush");
    if (close(fd) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return failed("close", path, error);
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return failed("replace", path, error);
    }
    // The rename lives in the folder; without this a crash may forget it.
    const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return failed("open the folder of", path, errno);
    const int synced = fsync(dir);
    const int error = errno;
    close(dir);
    if (synced != 0) return failed("flush the folder of", path, error);
    return Status::success();
}

}  // namespace vostra
