#include "nfs/xdr.h"

namespace vostra::data::xdr {

std::string_view Reader::take(std::size_t size) {
    if (!ok_ || size > rest_.size()) {
        ok_ = false;
        rest_ = {};
        return {};
    }
    std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
}

uint32_t Reader::u32() {
    const std::string_view b = take(4);
    if (b.size() != 4) return 0;
    return (uint32_t{static_cast<uint8_t>(b[0])} << 24) |
           (uint32_t{static_cast<uint8_t>(b[1])} << 16) |
           (uint32_t{static_cast<uint8_t>(b[2])} << 8) | uint32_t{static_cast<uint8_t>(b[3])};
}

uint64_t Reader::u64() {
    const uint64_t high = u32();
    return (high << 32) | u32();
}

std::string_view Reader::fixed(uint32_t size) {
    const std::string_view bytes = take(size);
    (void)take((4 - size % 4) % 4);
    return ok_ ? bytes : std::string_view();
}

std::string_view Reader::opaque(uint32_t max) {
    const uint32_t size = u32();
    if (size > max) {
        ok_ = false;
        rest_ = {};
        return {};
    }
    return fixed(size);
}

Writer& Writer::u32(uint32_t value) {
    const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    out_.append(bytes, 4);
    return *this;
}

Writer& Writer::u64(uint64_t value) {
    u32(static_cast<uint32_t>(value >> 32));
    return u32(static_cast<uint32_t>(value));
}

Writer& Writer::fixed(std::string_view bytes) {
    out_.append(bytes);
    out_.append((4 - bytes.size() % 4) % 4, '\0');
    return *this;
}

Writer& Writer::opaque(std::string_view bytes) {
    u32(static_cast<uint32_t>(bytes.size()));
    return fixed(bytes);
}

}  // namespace vostra::data::xdr
