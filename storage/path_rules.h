// The path and listing rules every storage backend shares, so that callers
// cannot tell one backend from another: how a caller's path is confined to
// the tenant's root, how glob patterns match, and how listings are ordered
// and sliced. Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "storage/file_entry.h"

namespace vostra::data {

// Leading "/" dropped; components "", "." and ".." dropped, never resolved:
// "a/../b" is "a/b" and "../../etc" is "etc". The empty text is the root.
std::string sanitizePath(std::string_view path);

// The last component of a sanitised path (the whole of it when it has no "/").
std::string lastComponent(std::string_view sanitized);

// True when sanitised `path` is `root` or lies below it.
bool isSameOrBelow(std::string_view path, std::string_view root);

// Whole-name glob match: "?" is any one character, "*" any run of them,
// every other character (the dot included) stands for itself.
bool matchesPattern(std::string_view name, std::string_view pattern);

// Directories first, then files, each group by name in byte order; then the
// entries from min(offset, n) to min(offset + limit, n). Negative offsets and
// limits count as 0.
std::vector<FileEntry> orderAndSlice(std::vector<FileEntry> entries, int32_t limit, int32_t offset);

}  // namespace vostra::data
