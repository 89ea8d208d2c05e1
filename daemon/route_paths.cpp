#include "daemon/route_paths.h"

namespace vostra::data {

PathParts splitIdAndSubPath(std::string_view path, std::string_view prefix) {
    std::string_view rest = path.substr(std::min(prefix.size(), path.size()));
    std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return {std::string(rest), {}};
    return {std::string(rest.substr(0, slash)), std::string(rest.substr(slash))};
}

PathParts splitTenantAndPath(std::string_view path, std::string_view prefix) {
    PathParts parts = splitIdAndSubPath(path, prefix);
    if (!parts.rest.empty()) parts.rest.erase(0, 1);
    return parts;
}

}  // namespace vostra::data
