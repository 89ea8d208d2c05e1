// Content checksums of stored files: SHA-256 through OpenSSL's libcrypto.
// Pure function; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace vostra::data {

// SHA-256 of `data` as 64 lower-case hexadecimal digits.
std::string calculateChecksum(std::string_view data);

}  // namespace vostra::data
