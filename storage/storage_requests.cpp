#include "storage/storage_requests.h"

#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

std::string StorageWriteRequest::readBody(std::string&& body) {
    // Parsing without exceptions: most bodies are plain file content, and a
    // failed parse is the normal case rather than an error.
    nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
    if (!parsed.is_object()) {
        data = std::move(body);
        return {};
    }
    data = std::move(body);
    try {
        // The parsed copy of a large "data" is moved, not copied again.
        if (auto it = parsed.find("data"); it != parsed.end() && it->is_string()) {
            std::string().swap(data);
            data = std::move(it->get_ref<std::string&>());
        } else {
            readField(parsed, "data", data);
        }
        readField(parsed, "content_type", content_type);
        readField(parsed, "metadata", metadata);
    } catch (const nlohmann::json::exception& error) {
        return error.what();
    }
    return {};
}

}  // namespace vostra::data
