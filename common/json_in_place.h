// Reading a JSON object whose one large string member (an uploaded file)
// must not be copied: the members are located without building values, and
// that string is decoded into the very buffer that holds the text. The rules
// are JSON's own (RFC 8259, UTF-8 checked as strictly as nlohmann-json does),
// so a text counts as a JSON object here exactly when the library would
// parse it as one. Pure functions; thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vostra {

struct JsonMember {
    std::string key;          // decoded
    std::size_t begin = 0;    // the value's text: [begin, end) of the object's text
    std::size_t end = 0;
};

// The top-level members of `text` in order (a repeated key appears twice),
// or nothing when `text` is not one JSON object, white space around it
// allowed. Values are checked for their extent only, and strings fully;
// parse any other value's text to check it.
std::optional<std::vector<JsonMember>> scanJsonObject(std::string_view text);

// Decodes the JSON string literal text[begin, end) (quotes included) and
// leaves its value as the whole of `text`, reusing its buffer. False, with
// `text` unchanged, when the literal is not a valid JSON string.
bool takeJsonString(std::string& text, std::size_t begin, std::size_t end);

}  // namespace vostra
