#include "storage/storage_requests.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

std::string StorageWriteRequest::readBody(const std::string& body) {
    // Parsing without exceptions: most bodies are plain file content, and a
    // failed parse is the normal case rather than an error.
    const nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
    data = body;
    if (!parsed.is_object()) return {};
    try {
        readField(parsed, "data", data);
        readField(parsed, "content_type", content_type);
        readField(parsed, "metadata", metadata);
    } catch (const nlohmann::json::exception& error) {
        return error.what();
    }
    return {};
}

}  // namespace vostra::data
