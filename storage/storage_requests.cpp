#include "storage/storage_requests.h"

#include <nlohmann/json.hpp>

#include "common/base64.h"
#include "common/json_fields.h"
#include "common/json_in_place.h"

namespace vostra::data {

std::string StorageWriteRequest::readBody(std::string&& body) {
    // Members are located without building values: a JSON-wrapped upload's
    // "data" is decoded inside the body's own buffer, never copied. Most
    // bodies are plain file content, and "not a JSON object" is the normal
    // case rather than an error.
    const auto members = scanJsonObject(body);
    if (!members) {
        data = std::move(body);
        return {};
    }
    nlohmann::json object = nlohmann::json::object();
    const JsonMember* text = nullptr;  // a string "data", decoded last
    for (const JsonMember& member : *members) {
        if (member.key == "data" && body[member.begin] == '"') {
            // As the library would, a repeated key keeps its last value.
            text = &member;
            object.erase("data");
            continue;
        }
        nlohmann::json value = nlohmann::json::parse(
            std::string_view(body).substr(member.begin, member.end - member.begin), nullptr, false);
        if (value.is_discarded()) {
            data = std::move(body);
            return {};
        }
        if (member.key == "data") text = nullptr;
        object[member.key] = std::move(value);
    }
    // Decoding checks the whole string before it writes, so a string that is
    // not valid JSON leaves the body whole, to be stored as it stands.
    const bool decoded = text && takeJsonString(body, text->begin, text->end);
    if (text && !decoded) {
        data = std::move(body);
        return {};
    }
    std::string encoding;
    const bool has_data = decoded || object.contains("data");
    try {
        if (decoded)
            data = std::move(body);
        else if (object.contains("data"))
            readField(object, "data", data);
        else
            data = std::move(body);
        readField(object, "content_type", content_type);
        readField(object, "metadata", metadata);
        readField(object, "encoding", encoding);
    } catch (const nlohmann::json::exception& error) {
        return error.what();
    }
    // Binary files travel as base64 text; decoding only shrinks, in place.
    if (encoding.empty() || !has_data) return {};
    if (encoding != "base64") return "Unknown encoding: " + encoding;
    if (!decodeBase64InPlace(data)) return "Invalid base64 in \"data\"";
    return {};
}

}  // namespace vostra::data
