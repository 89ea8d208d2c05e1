#include "storage/checksum.h"

#include <openssl/sha.h>

namespace vostra::data {

std::string calculateChecksum(std::string_view data) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * SHA256_DIGEST_LENGTH);
    for (unsigned char byte : digest) {
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0f];
    }
    return out;
}

}  // namespace vostra::data
