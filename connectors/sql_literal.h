// Quoting text as a standard SQL string literal, for the connectors that
// splice literals into statement text and for drivers without a connection
// to ask. Pure functions; thread-safe.
#pragma once

#include <string>

namespace vostra::data {

// 'text' with every single quote doubled: O'Brien becomes 'O''Brien'. When
// `double_backslashes` is set, backslashes are doubled too, for dialects that
// treat them as escapes inside literals.
std::string quoteSqlLiteral(const std::string& text, bool double_backslashes = false);

}  // namespace vostra::data
