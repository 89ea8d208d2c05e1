// Reading the JSON header of a ".safetensors" file: its tensors' names,
// shapes and dtypes and the free-form "__metadata__", never the tensor
// data. Stateless; thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::pipeline {

struct SafetensorsTensor {
    std::string name;
    std::string dtype;  // "F16", "BF16", "F32", "I8", ...
    std::vector<uint64_t> shape;
    uint64_t data_begin = 0;  // relative to the end of the header
    uint64_t data_end = 0;

    nlohmann::json toJson() const;
};

struct SafetensorsHeader {
    std::vector<SafetensorsTensor> tensors;  // sorted by name
    std::map<std::string, std::string> metadata;
    uint64_t parameter_count = 0;
    // The dtype holding the most parameters; "" without tensors.
    std::string main_dtype;

    nlohmann::json toJson(bool with_tensors = true) const;
};

// True when the file at `path` starts with a well-formed header: an 8-byte
// little-endian length (at most 100 MiB and within the file) followed by
// that many bytes of a JSON object whose entries are tensors with a
// string "dtype", an integer "shape" and two "data_offsets" inside the
// file. Anything else is false.
bool readSafetensorsHeader(const std::string& path, SafetensorsHeader& out);

}  // namespace vostra::pipeline
