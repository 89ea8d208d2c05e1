// The in-place JSON object reader agrees with nlohmann-json on what is a JSON
// object and on every decoded string, and never copies the large value.
#include "common/json_in_place.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vostra {
namespace {

// The decoded members of `text` as the library sees them, read through the
// scanner and takeJsonString; "not an object" when the scanner refuses it.
std::string throughScanner(const std::string& text) {
    const auto members = scanJsonObject(text);
    if (!members) return "not an object";
    nlohmann::json object = nlohmann::json::object();
    for (const JsonMember& member : *members) {
        std::string value = text;
        if (text[member.begin] == '"') {
            if (!takeJsonString(value, member.begin, member.end)) return "not an object";
            object[member.key] = value;
        } else {
            auto parsed = nlohmann::json::parse(text.substr(member.begin, member.end - member.begin),
                                                nullptr, false);
            if (parsed.is_discarded()) return "not an object";
            object[member.key] = parsed;
        }
    }
    return object.dump();
}

std::string throughLibrary(const std::string& text) {
    const auto parsed = nlohmann::json::parse(text, nullptr, false);
    return parsed.is_object() ? parsed.dump() : "not an object";
}

TEST(JsonInPlace, AgreesWithTheLibraryOnObjectsAndStrings) {
    const std::vector<std::string> texts = {
        R"({})", R"( { } )", R"({"data":"x"})", R"({"a":1,"b":[1,{"c":"}"}],"d":null})",
        R"({"data":"tab\tquote\"slash\/back\\u\u00e9\ud83d\ude00"})", "{\"k\":\"\xc3\xa9\"}",
        R"({"a":1,"a":2})", R"({"data":"x","data":5})", R"({"n":-1.5e3,"t":true,"f":false})",
        // Not objects, or not JSON at all.
        R"([1])", R"("s")", R"({"a":1,})", R"({"a" 1})", R"({a:1})", R"({"a":01})", R"({"a":1} x)",
        R"({"a":"\x"})", R"({"a":"\ud800"})", R"({"a":"\udc00"})", R"({"a":"\u12"})",
        "{\"a\":\"\x01\"}", "{\"a\":\"\xff\"}", "{\"a\":\"\xc0\x80\"}", "{\"a\":\"\xed\xa0\x80\"}",
        "{\"a\":\"\xf4\x90\x80\x80\"}", R"({"a":"unterminated})", R"({"a":[1,2})", R"({"a":tru})",
        "", "   ", "plain text", R"({"a":1}})"};
    for (const std::string& text : texts)
        EXPECT_EQ(throughScanner(text), throughLibrary(text)) << text;
}

TEST(JsonInPlace, DecodesALargeValueInsideItsOwnBuffer) {
    std::string text = R"({"content_type":"text/plain","data":")" + std::string(1 << 20, 'z') +
                       R"(\n"})";
    const auto members = scanJsonObject(text);
    ASSERT_TRUE(members);
    ASSERT_EQ(members->size(), 2u);
    const char* buffer = text.data();
    ASSERT_TRUE(takeJsonString(text, (*members)[1].begin, (*members)[1].end));
    EXPECT_EQ(text.data(), buffer);
    EXPECT_EQ(text.size(), (1u << 20) + 1);
    EXPECT_EQ(text.back(), '\n');

    std::string broken = R"({"data":"ok\q"})";
    const std::string before = broken;
    EXPECT_FALSE(takeJsonString(broken, 8, broken.size() - 1));
    EXPECT_EQ(broken, before);
}

}  // namespace
}  // namespace vostra
