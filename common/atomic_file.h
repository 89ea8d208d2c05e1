// Writing a file so that it is always whole: the old content or the new one,
// never a mixture, a truncated file or nothing, whatever fails or crashes on
// the way. Every state file the daemon keeps (tenants, sources, vector
// settings) and every stored file goes through here. Stateless; thread-safe
// for different paths.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/status.h"

namespace vostra {

// A new version of a file, written beside it under a temporary name in the
// same folder (see isPendingName) and invisible until commit(). Removed
// unless committed. Movable, not copyable; not thread-safe.
class PendingFile {
public:
    PendingFile() = default;
    PendingFile(PendingFile&& other) noexcept;
    PendingFile& operator=(PendingFile&& other) noexcept;
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;
    ~PendingFile();

    // Writes `content` with permissions `mode` (the umask does not apply),
    // checking every write; with `durable` flushes it to disk. On failure
    // (Internal, saying what and why) nothing is left behind.
    static Status write(const std::string& path, std::string_view content, mode_t mode,
                        bool durable, PendingFile& out);
    // Renames the new version over the target. The folder is not flushed:
    // see syncFolderOf.
    Status commit();

    // Whether a file name is one of these temporaries: callers that list or
    // count files leave them out.
    static bool isPendingName(std::string_view name);

private:
    std::string path_;
    std::string temporary_;
};

// Flushes the folder holding `path`, so that renames into it survive a crash.
Status syncFolderOf(const std::string& path);

// PendingFile::write, commit and (when `durable`) syncFolderOf in one.
Status writeFileAtomically(const std::string& path, std::string_view content, mode_t mode,
                           bool durable = true);

}  // namespace vostra
