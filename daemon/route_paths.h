// Splitting the rest of a routed path into its parts, e.g. the id and the
// sub-path of "/api/v1/data/sources/<id>/<sub>". Pure functions.
#pragma once

#include <string>
#include <string_view>

namespace vostra::data {

struct PathParts {
    std::string id;
    std::string rest;
};

// `path` after `prefix`, split at the first "/": the sub-path keeps its
// leading "/" and is empty when there is none.
PathParts splitIdAndSubPath(std::string_view path, std::string_view prefix);

// As splitIdAndSubPath, but the rest loses its leading "/" (storage paths).
PathParts splitTenantAndPath(std::string_view path, std::string_view prefix);

}  // namespace vostra::data
