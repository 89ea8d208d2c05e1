#include "common/sanitize_utf8.h"

#include <cstddef>

namespace vostra {
namespace {

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// Length of the sequence led by `lead`, or 0 when it cannot lead one.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xC0 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF7) return 4;
    return 0;
}

}  // namespace

std::string sanitize_utf8(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t length = sequenceLength(static_cast<unsigned char>(text[i]));
        bool complete = length > 0 && i + length <= text.size();
        for (std::size_t k = 1; complete && k < length; ++k) {
            complete = isContinuation(static_cast<unsigned char>(text[i + k]));
        }
        if (complete) {
            out.append(text, i, length);
            i += length;
        } else {
            // Resume at the very next byte, so each stray continuation byte of
            // a broken sequence earns its own "?".
            out.push_back('?');
            ++i;
        }
    }
    return out;
}

}  // namespace vostra
