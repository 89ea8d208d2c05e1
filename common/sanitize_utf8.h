// Cleaning text before it goes into JSON, whose encoder rejects malformed
// UTF-8. Used by the vector API on text read from documents and databases.
// A pure function; thread-safe.
#pragma once

#include <string>

namespace vostra {

// A copy in which every byte that is not part of a structurally complete
// UTF-8 sequence becomes one "?". Only the lead/continuation structure is
// checked: overlong forms, encoded surrogates and lead bytes F4..F7 beyond
// U+10FFFF pass unchanged, which callers rely on.
std::string sanitize_utf8(const std::string& text);

}  // namespace vostra
