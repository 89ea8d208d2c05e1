#include "common/json_in_place.h"

namespace vostra {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::size_t skipBlanks(std::string_view text, std::size_t at) {
    while (at < text.size() && isBlank(text[at])) ++at;
    return at;
}

// The end of the string literal starting at `at` (just past its closing
// quote), or npos.
std::size_t endOfString(std::string_view text, std::size_t at) {
    for (std::size_t i = at + 1; i < text.size(); ++i) {
        if (text[i] == '\\')
            ++i;
        else if (text[i] == '"')
            return i + 1;
    }
    return std::string_view::npos;
}

// The end of the value starting at `at`, by its extent only, or npos.
std::size_t endOfValue(std::string_view text, std::size_t at) {
    if (at >= text.size()) return std::string_view::npos;
    if (text[at] == '"') return endOfString(text, at);
    if (text[at] == '{' || text[at] == '[') {
        int depth = 0;
        for (std::size_t i = at; i < text.size(); ++i) {
            const char c = text[i];
            if (c == '"') {
                i = endOfString(text, i);
                if (i == std::string_view::npos) return i;
                --i;
            } else if (c == '{' || c == '[') {
                ++depth;
            } else if ((c == '}' || c == ']') && --depth == 0) {
                return i + 1;
            }
        }
        return std::string_view::npos;
    }
    std::size_t i = at;
    while (i < text.size() && !isBlank(text[i]) && text[i] != ',' && text[i] != '}') ++i;
    return i == at ? std::string_view::npos : i;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Four hex digits at text[at..at+4), or -1.
long hex4(std::string_view text, std::size_t at) {
    if (at + 4 > text.size()) return -1;
    long value = 0;
    for (std::size_t i = at; i < at + 4; ++i) {
        const int digit = hexValue(text[i]);
        if (digit < 0) return -1;
        value = value * 16 + digit;
    }
    return value;
}

// Bytes in the well-formed UTF-8 sequence at text[at], or 0.
std::size_t utf8Length(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) -> unsigned {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0x100;
    };
    const auto tail = [&](std::size_t i, unsigned low = 0x80, unsigned high = 0xBF) {
        return byte(i) >= low && byte(i) <= high;
    };
    const unsigned lead = byte(0);
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return tail(1) ? 2 : 0;
    if (lead == 0xE0) return tail(1, 0xA0) && tail(2) ? 3 : 0;
    if ((lead >= 0xE1 && lead <= 0xEC) || lead == 0xEE || lead == 0xEF)
        return tail(1) && tail(2) ? 3 : 0;
    if (lead == 0xED) return tail(1, 0x80, 0x9F) && tail(2) ? 3 : 0;
    if (lead == 0xF0) return tail(1, 0x90) && tail(2) && tail(3) ? 4 : 0;
    if (lead >= 0xF1 && lead <= 0xF3) return tail(1) && tail(2) && tail(3) ? 4 : 0;
    if (lead == 0xF4) return tail(1, 0x80, 0x8F) && tail(2) && tail(3) ? 4 : 0;
    return 0;
}

// Where decoded bytes go: the front of `out`, or nowhere (a check only).
// `out` may hold the text being decoded: the writer never passes the reader.
class Sink {
public:
    explicit Sink(std::string* out) : out_(out) {}
    void put(char c) {
        if (out_) (*out_)[size_] = c;
        ++size_;
    }
    void putUtf8(unsigned long code) {
        if (code < 0x80) {
            put(static_cast<char>(code));
        } else if (code < 0x800) {
            put(static_cast<char>(0xC0 | (code >> 6)));
            put(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            put(static_cast<char>(0xE0 | (code >> 12)));
            put(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            put(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            put(static_cast<char>(0xF0 | (code >> 18)));
            put(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            put(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            put(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    std::size_t size() const { return size_; }

private:
    std::string* out_;
    std::size_t size_ = 0;
};

// Decodes the literal text[begin, end) into `out` from position 0 (nowhere
// when null). The decoded length, or npos when the literal is not valid.
std::size_t decodeString(std::string_view text, std::size_t begin, std::size_t end,
                         std::string* out) {
    if (end - begin < 2 || text[begin] != '"' || text[end - 1] != '"') return std::string::npos;
    Sink sink(out);
    for (std::size_t i = begin + 1; i < end - 1;) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20) return std::string::npos;
        if (c == '\\') {
            if (i + 1 >= end - 1) return std::string::npos;
            const char escape = text[i + 1];
            i += 2;
            switch (escape) {
                case '"': sink.put('"'); continue;
                case '\\': sink.put('\\'); continue;
                case '/': sink.put('/'); continue;
                case 'b': sink.put('\b'); continue;
                case 'f': sink.put('\f'); continue;
                case 'n': sink.put('\n'); continue;
                case 'r': sink.put('\r'); continue;
                case 't': sink.put('\t'); continue;
                case 'u': break;
                default: return std::string::npos;
            }
            long code = hex4(text.substr(0, end - 1), i);
            if (code < 0 || (code >= 0xDC00 && code <= 0xDFFF)) return std::string::npos;
            i += 4;
            if (code >= 0xD800 && code <= 0xDBFF) {
                // A high surrogate must be followed by an escaped low one.
                if (i + 1 >= end - 1 || text[i] != '\\' || text[i + 1] != 'u')
                    return std::string::npos;
                const long low = hex4(text.substr(0, end - 1), i + 2);
                if (low < 0xDC00 || low > 0xDFFF) return std::string::npos;
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                i += 6;
            }
            sink.putUtf8(static_cast<unsigned long>(code));
            continue;
        }
        const std::size_t length = utf8Length(text.substr(0, end - 1), i);
        if (length == 0) return std::string::npos;
        for (std::size_t k = 0; k < length; ++k) sink.put(text[i + k]);
        i += length;
    }
    return sink.size();
}

}  // namespace

std::optional<std::vector<JsonMember>> scanJsonObject(std::string_view text) {
    std::vector<JsonMember> members;
    std::size_t at = skipBlanks(text, 0);
    if (at >= text.size() || text[at] != '{') return std::nullopt;
    at = skipBlanks(text, at + 1);
    if (at < text.size() && text[at] == '}') return skipBlanks(text, at + 1) == text.size()
                                                        ? std::optional(members)
                                                        : std::nullopt;
    for (;;) {
        if (at >= text.size() || text[at] != '"') return std::nullopt;
        const std::size_t key_end = endOfString(text, at);
        if (key_end == std::string_view::npos) return std::nullopt;
        JsonMember member;
        member.key.resize(key_end - at);
        const std::size_t key_size = decodeString(text, at, key_end, &member.key);
        if (key_size == std::string::npos) return std::nullopt;
        member.key.resize(key_size);
        at = skipBlanks(text, key_end);
        if (at >= text.size() || text[at] != ':') return std::nullopt;
        member.begin = skipBlanks(text, at + 1);
        member.end = endOfValue(text, member.begin);
        if (member.end == std::string_view::npos) return std::nullopt;
        members.push_back(std::move(member));
        at = skipBlanks(text, members.back().end);
        if (at >= text.size()) return std::nullopt;
        if (text[at] == '}') break;
        if (text[at] != ',') return std::nullopt;
        at = skipBlanks(text, at + 1);
    }
    if (skipBlanks(text, at + 1) != text.size()) return std::nullopt;
    return members;
}

bool takeJsonString(std::string& text, std::size_t begin, std::size_t end) {
    if (end > text.size() || begin >= end) return false;
    // Checked before anything is written, so a failure leaves `text` whole;
    // a second pass costs less than a second copy of a large value.
    if (decodeString(text, begin, end, nullptr) == std::string::npos) return false;
    text.resize(decodeString(text, begin, end, &text));
    return true;
}

}  // namespace vostra
