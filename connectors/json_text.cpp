#include "connectors/json_text.h"

#include <array>
#include <cstdint>

namespace vostra::data {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

enum ByteClass : uint8_t { kPlain, kEscaped, kMultiByte };

constexpr std::array<ByteClass, 256> kClasses = [] {
    std::array<ByteClass, 256> classes{};
    for (int b = 0; b < 256; ++b) {
        if (b < 0x20 || b == '"' || b == '\\')
            classes[b] = kEscaped;
        else if (b >= 0x80)
            classes[b] = kMultiByte;
        else
            classes[b] = kPlain;
    }
    return classes;
}();

// How many bytes of the sequence starting at text[at] are well-formed UTF-8
// (Unicode's table of well-formed byte sequences: no overlong forms, no
// surrogates, nothing above U+10FFFF). Equal to `length` when the whole
// sequence is; less when it breaks off, 0 when the lead byte is no lead.
std::size_t wellFormedPrefix(std::string_view text, std::size_t at, std::size_t& length) {
    const auto byte = [&](std::size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(at);
    uint8_t second_low = 0x80, second_high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) second_low = 0xA0;
        if (lead == 0xED) second_high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) second_low = 0x90;
        if (lead == 0xF4) second_high = 0x8F;
    } else {
        length = 1;
        return 0;
    }
    std::size_t good = 1;
    for (; good < length && at + good < text.size(); ++good) {
        const uint8_t next = byte(at + good);
        const uint8_t low = good == 1 ? second_low : 0x80;
        const uint8_t high = good == 1 ? second_high : 0xBF;
        if (next < low || next > high) break;
    }
    return good;
}

// Calls emit(piece) for each piece of the escaped text, quotes excluded.
template <typename Emit>
void escape(std::string_view text, Emit&& emit) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t run_start = i;
        while (i < text.size() && kClasses[static_cast<uint8_t>(text[i])] == kPlain)
            ++i;
        if (i > run_start) emit(text.substr(run_start, i - run_start));
        if (i == text.size()) break;

        const auto byte = static_cast<uint8_t>(text[i]);
        if (kClasses[byte] == kEscaped) {
            switch (byte) {
                case '"':
                    emit("\\\"");
                    break;
                case '\\':
                    emit("\\\\");
                    break;
                case '\b':
                    emit("\\b");
                    break;
                case '\t':
                    emit("\\t");
                    break;
                case '\n':
                    emit("\\n");
                    break;
                case '\f':
                    emit("\\f");
                    break;
                case '\r':
                    emit("\\r");
                    break;
                default: {
                    const char code[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
                    emit(std::string_view(code, sizeof code));
                }
            }
            ++i;
            continue;
        }
        std::size_t length = 0;
        const std::size_t good = wellFormedPrefix(text, i, length);
        if (good == length) {
            emit(text.substr(i, length));
            i += length;
        } else {
            // The broken prefix goes as one replacement; the byte that broke
            // it is read again as the start of what follows.
            emit(kReplacement);
            i += good == 0 ? 1 : good;
        }
    }
}

}  // namespace

std::size_t jsonStringSize(std::string_view text) {
    std::size_t size = 2;
    escape(text, [&](std::string_view piece) { size += piece.size(); });
    return size;
}

void appendJsonString(std::string& out, std::string_view text) {
    out.push_back('"');
    escape(text, [&](std::string_view piece) { out.append(piece); });
    out.push_back('"');
}

}  // namespace vostra::data
