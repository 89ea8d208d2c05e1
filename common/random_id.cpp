#include "common/random_id.h"

#include <mutex>
#include <random>

namespace vostra {

std::string randomHex(int digits) {
    static std::mutex mutex;
    static std::mt19937 engine{std::random_device{}()};
    static constexpr char kHex[] = "0123456789abcdef";
    std::uniform_int_distribution<int> nibble(0, 15);

    std::string out;
    out.reserve(digits > 0 ? digits : 0);
    std::lock_guard lock(mutex);
    for (int i = 0; i < digits; ++i) out += kHex[nibble(engine)];
    return out;
}

}  // namespace vostra
