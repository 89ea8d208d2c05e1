// Base64 (RFC 4648, standard alphabet) decoded inside the buffer that holds
// it, for binary files uploaded in JSON without a second copy. A pure
// function; thread-safe.
#pragma once

#include <string>

namespace vostra {

// Replaces `text` by the bytes it encodes. Line breaks and blanks are
// skipped; "=" padding is optional but only at the end. False, with `text`
// left unspecified, for any other character or a dangling 6 bits.
bool decodeBase64InPlace(std::string& text);

}  // namespace vostra
