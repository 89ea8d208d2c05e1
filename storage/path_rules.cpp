#include "storage/path_rules.h"

#include <algorithm>

namespace vostra::data {

std::string sanitizePath(std::string_view path) {
    std::string out;
    std::size_t at = 0;
    while (at <= path.size()) {
        std::size_t slash = path.find('/', at);
        if (slash == std::string_view::npos) slash = path.size();
        std::string_view part = path.substr(at, slash - at);
        if (!part.empty() && part != "." && part != "..") {
            if (!out.empty()) out += '/';
            out += part;
        }
        at = slash + 1;
    }
    return out;
}

std::string lastComponent(std::string_view sanitized) {
    std::size_t slash = sanitized.rfind('/');
    return std::string(slash == std::string_view::npos ? sanitized : sanitized.substr(slash + 1));
}

bool isSameOrBelow(std::string_view path, std::string_view root) {
    if (root.empty()) return true;
    if (!path.starts_with(root)) return false;
    return path.size() == root.size() || path[root.size()] == '/';
}

bool matchesPattern(std::string_view name, std::string_view pattern) {
    // Greedy match with one back-track point: the last "*" seen absorbs one
    // more character whenever the rest fails. Linear in practice, unlike a
    // regular expression built per listing.
    std::size_t n = 0, p = 0;
    std::size_t star = std::string_view::npos, resume = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++n;
            ++p;
        } else if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = n;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

std::vector<FileEntry> orderAndSlice(std::vector<FileEntry> entries, int32_t limit,
                                     int32_t offset) {
    std::sort(entries.begin(), entries.end(), [](const FileEntry& a, const FileEntry& b) {
        if (a.is_directory != b.is_directory) return a.is_directory;
        if (a.name != b.name) return a.name < b.name;
        return a.path < b.path;  // same name in different folders of a recursive listing
    });
    const std::size_t n = entries.size();
    const std::size_t first = std::min<std::size_t>(std::max(offset, 0), n);
    const std::size_t last = std::min<std::size_t>(first + std::max(limit, 0), n);
    return {std::make_move_iterator(entries.begin() + first),
            std::make_move_iterator(entries.begin() + last)};
}

}  // namespace vostra::data
