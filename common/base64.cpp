#include "common/base64.h"

namespace vostra {
namespace {

int sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

bool decodeBase64InPlace(std::string& text) {
    // Four characters make three bytes, so the writer never passes the reader.
    std::size_t written = 0;
    unsigned bits = 0;
    int held = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = sextet(c);
        if (value < 0 || padding > 0) return false;
        bits = (bits << 6) | static_cast<unsigned>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            text[written++] = static_cast<char>((bits >> held) & 0xFF);
        }
    }
    // 6 bits left over cannot end a valid encoding; 2 or 4 are the
    // zero padding of a short last group.
    if (held == 6 || padding > 2) return false;
    text.resize(written);
    return true;
}

}  // namespace vostra
