// VectorDocument: one stored text chunk with its embedding, as every vector
// backend keeps it and the vector API shows it. A plain value record owned
// by whoever holds it; backends copy documents in and out.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct VectorDocument {
    std::string id;  // unique within a backend
    std::string content;
    std::string source;  // client-chosen label; documents are deleted and listed by it
    std::string namespace_id;
    std::map<std::string, std::string> metadata;
    int64_t created_at = 0;  // milliseconds since the Unix epoch
    int64_t updated_at = 0;
    int32_t chunk_index = 0;
    int32_t total_chunks = 1;
    std::vector<float> embedding;

    // Every field but the vector itself, whose length is given as
    // "embedding_dim". Text that is not valid UTF-8 (a chunk boundary may cut
    // a character) is written with "?" in place of the broken bytes.
    nlohmann::json toJson() const;

    // Reads each key only when present, "embedding" included. A key of the
    // wrong JSON type throws nlohmann::json::type_error.
    static VectorDocument fromJson(const nlohmann::json& json);
};

}  // namespace vostra::data
