// Random identifiers ("data-…", "sub-…", "doc-…") drawn from one process-wide
// Mersenne Twister seeded once from the system random device. Thread-safe.
#pragma once

#include <string>

namespace vostra {

// `digits` lowercase hexadecimal digits, each uniform over 0..15.
std::string randomHex(int digits);

}  // namespace vostra
