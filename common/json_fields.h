// Reading configuration records from JSON: a key is assigned only when present,
// so a document need name only what it changes. A present key of the wrong JSON
// type throws the library's type_error; callers turn that into an error reply.
#pragma once

#include <nlohmann/json.hpp>

namespace vostra {

template <typename T>
void readField(const nlohmann::json& object, const char* key, T& field) {
    auto it = object.find(key);
    if (it != object.end()) field = it->template get<T>();
}

// Each record's toJson(), in order, as one JSON array.
template <typename Records>
nlohmann::json toJsonArray(const Records& records) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& record : records) array.push_back(record.toJson());
    return array;
}

}  // namespace vostra
