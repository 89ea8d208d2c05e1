#include "security/sqlite_roots.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <vector>

namespace vostra::security {
namespace {

namespace fs = std::filesystem;

// The path SQLite would open, every link followed (also a dangling one:
// SQLite creates its target) and ".." taken after the link before it, as
// the kernel does.
fs::path resolved(const std::string& path) {
    std::error_code error;
    std::vector<fs::path> parts;  // still to walk, the next one last
    auto push = [&](const fs::path& more) {
        std::vector<fs::path> components(more.begin(), more.end());
        parts.insert(parts.end(), components.rbegin(), components.rend());
    };
    push(fs::absolute(path, error));
    fs::path built = "/";
    for (int links = 0; !parts.empty();) {
        const fs::path part = parts.back();
        parts.pop_back();
        if (part.empty() || part == "/" || part == ".") continue;
        if (part == "..") {
            built = built.parent_path();
            continue;
        }
        const fs::path next = built / part;
        if (fs::is_symlink(fs::symlink_status(next, error))) {
            if (++links > 40) return next;  // a loop, which SQLite cannot open either
            const fs::path target = fs::read_symlink(next, error);
            if (target.is_absolute()) built = "/";
            push(target);
            continue;
        }
        built = next;
    }
    return built;
}

bool within(const fs::path& path, const fs::path& folder) {
    auto [folder_end, path_at] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
    return folder_end == folder.end() || (std::next(folder_end) == folder.end() && folder_end->empty());
}

}  // namespace

std::string sqlitePathProblem(const std::string& path, const SqlitePathRules& rules) {
    if (path.empty() || path == ":memory:") return "";
    const fs::path real = resolved(path);
    for (const std::string& kept : rules.protected_paths) {
        if (kept.empty()) continue;
        if (within(real, resolved(kept)))
            return "The daemon's own state cannot be a data source: " + path;
    }
    if (rules.roots.empty()) return "";
    std::string allowed;
    for (const std::string& root : rules.roots) {
        if (within(real, resolved(root))) return "";
        if (!allowed.empty()) allowed += ", ";
        allowed += root;
    }
    return "SQLite sources must lie under " + allowed + ": " + path + " resolves to " + real.string();
}

}  // namespace vostra::security
