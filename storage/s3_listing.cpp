#include "storage/s3_listing.h"

#include <charconv>

namespace vostra::data::s3 {
namespace {

// The text of the first <name>…</name> in `xml` from `from`, or nothing.
// `end` is set past the closing tag.
bool element(std::string_view xml, std::string_view name, std::size_t from,
             std::string_view& text, std::size_t& end) {
    const std::string open = "<" + std::string(name) + ">";
    const std::string close = "</" + std::string(name) + ">";
    const std::size_t start = xml.find(open, from);
    if (start == std::string_view::npos) return false;
    const std::size_t body = start + open.size();
    const std::size_t stop = xml.find(close, body);
    if (stop == std::string_view::npos) return false;
    text = xml.substr(body, stop - body);
    end = stop + close.size();
    return true;
}

std::string_view elementText(std::string_view xml, std::string_view name) {
    std::string_view text;
    std::size_t end = 0;
    return element(xml, name, 0, text, end) ? text : std::string_view();
}

void appendUtf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The character a reference between "&" and ";" stands for, appended to
// `out`; false when it is not one we know.
bool appendReference(std::string& out, std::string_view name) {
    static constexpr std::pair<std::string_view, char> kNamed[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [entity, c] : kNamed)
        if (name == entity) {
            out += c;
            return true;
        }
    if (name.size() < 2 || name[0] != '#') return false;
    const bool hex = name[1] == 'x' || name[1] == 'X';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    uint32_t code = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, hex ? 16 : 10);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() ||
        code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return false;
    appendUtf8(out, code);
    return true;
}

}  // namespace

std::string xmlUnescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '&') {
            const std::size_t semi = text.find(';', i + 1);
            // References are short; a lone "&" far from any ";" is kept.
            if (semi != std::string_view::npos && semi - i <= 12 &&
                appendReference(out, text.substr(i + 1, semi - i - 1))) {
                i = semi;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

bool parseListPage(std::string_view xml, ListPage& page) {
    if (xml.find("<ListBucketResult") == std::string_view::npos) return false;
    std::string_view block;
    std::size_t at = 0;
    while (element(xml, "Contents", at, block, at)) {
        ListedObject object;
        object.key = xmlUnescape(elementText(block, "Key"));
        const std::string_view size = elementText(block, "Size");
        if (std::from_chars(size.data(), size.data() + size.size(), object.size).ec != std::errc() ||
            object.size < 0)
            object.size = 0;
        object.last_modified = std::string(elementText(block, "LastModified"));
        if (!object.key.empty()) page.objects.push_back(std::move(object));
    }
    at = 0;
    while (element(xml, "CommonPrefixes", at, block, at)) {
        std::string prefix = xmlUnescape(elementText(block, "Prefix"));
        if (!prefix.empty()) page.common_prefixes.push_back(std::move(prefix));
    }
    // Keys arrive escaped, so no key can pose as one of these elements.
    page.truncated = elementText(xml, "IsTruncated") == "true";
    page.next_token = xmlUnescape(elementText(xml, "NextContinuationToken"));
    return !page.truncated || !page.next_token.empty();
}

std::string errorDetail(std::string_view xml) {
    const std::string code = xmlUnescape(elementText(xml, "Code"));
    const std::string message = xmlUnescape(elementText(xml, "Message"));
    if (code.empty()) return message;
    return message.empty() ? code : code + " " + message;
}

}  // namespace vostra::data::s3
