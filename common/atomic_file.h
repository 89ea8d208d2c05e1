// Writing a state file so that it is always whole: the old content or the
// new one, never a mixture or a truncated file, whatever fails or crashes
// on the way. Every file the daemon keeps (tenants, sources, vector
// settings) goes through here. Stateless; thread-safe for different paths.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/status.h"

namespace vostra {

// Writes `content` to a new temporary file in the folder of `path` with
// permissions `mode`, checks every write, flushes it to disk, renames it
// over `path` and flushes the folder. On any failure the old file is left
// untouched, the temporary is removed and the status (Internal) says what
// failed and why.
Status writeFileAtomically(const std::string& path, std::string_view content, mode_t mode);

}  // namespace vostra
