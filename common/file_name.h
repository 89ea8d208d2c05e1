// The one rule for ids that become file or folder names: tenants, vector
// namespaces and, later, exports, repositories and workspaces. Such an id
// must stay one name inside its parent folder, whatever the client sends.
// A pure function; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace vostra {

// Why `name` cannot be used as one file or folder name, or empty when it
// can: it is empty, is "." or "..", holds ".." anywhere, or holds "/" or a
// NUL byte.
std::string fileNameProblem(std::string_view name);

}  // namespace vostra
