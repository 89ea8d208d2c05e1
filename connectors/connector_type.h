// The kinds of relational database a data source can be, and the access it is
// granted. Shared by the configuration parser, the factory and the registry;
// plain enumerations with their text forms. Stateless and thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vostra::data {

enum class ConnectorType : int32_t {
    SQLite = 0,
    PostgreSQL = 1,
    MySQL = 2,
    DB2_ODBC = 3,
    DB2_CLI = 4,
    DB2 = 5,
};

enum class AccessMode : int32_t {
    ReadOnly = 0,
    ReadWrite = 1,
};

// Canonical lowercase name ("sqlite", "postgresql", …); "unknown" for a value
// outside the enumeration.
std::string connectorTypeName(ConnectorType type);

// Exact, case-sensitive match against the canonical names and their aliases
// ("postgres", "mariadb", "db2_auto"). Anything else, the empty text included,
// yields SQLite without complaint: configurations written for other builds
// must still load, so the fallback is deliberate.
ConnectorType parseConnectorType(std::string_view name);

// "readwrite" or "readonly"; both parse back to the same value.
std::string accessModeName(AccessMode mode);

// "readwrite", "rw" and "write" grant writing; every other text is read-only,
// so a typo can never widen access.
AccessMode parseAccessMode(std::string_view text);

}  // namespace vostra::data
