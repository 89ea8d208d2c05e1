// JSON strings written straight into a text buffer, for answers too big to
// build as a JSON document first (a query result of millions of rows). The
// bytes are exactly those nlohmann::json's dump() writes with ensure_ascii
// off and invalid UTF-8 replaced, so an answer written either way reads the
// same to a client. Owned by the connectors; stateless and thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vostra::data {

// How many bytes appendJsonString(out, text) appends.
std::size_t jsonStringSize(std::string_view text);

// Appends `text` as a JSON string: quoted; '"', '\\' and control characters
// escaped; UTF-8 kept as it is, except that every invalid or cut-off
// sequence becomes one U+FFFD (three bytes).
void appendJsonString(std::string& out, std::string_view text);

}  // namespace vostra::data
