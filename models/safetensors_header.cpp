#include "models/safetensors_header.h"

#include <fstream>
#include <limits>

namespace vostra::pipeline {
namespace {

constexpr uint64_t kMaxHeaderBytes = 100u << 20;

bool readTensor(const std::string& name, const nlohmann::json& entry, uint64_t data_size,
                SafetensorsTensor& out) {
    if (!entry.is_object()) return false;
    auto dtype = entry.find("dtype");
    auto shape = entry.find("shape");
    auto offsets = entry.find("data_offsets");
    if (dtype == entry.end() || !dtype->is_string() || shape == entry.end() ||
        !shape->is_array() || offsets == entry.end() || !offsets->is_array() ||
        offsets->size() != 2)
        return false;
    out.name = name;
    out.dtype = dtype->get<std::string>();
    for (const nlohmann::json& dim : *shape) {
        if (!dim.is_number_unsigned()) return false;
        out.shape.push_back(dim.get<uint64_t>());
    }
    if (!(*offsets)[0].is_number_unsigned() || !(*offsets)[1].is_number_unsigned()) return false;
    out.data_begin = (*offsets)[0].get<uint64_t>();
    out.data_end = (*offsets)[1].get<uint64_t>();
    return out.data_begin <= out.data_end && out.data_end <= data_size;
}

}  // namespace

nlohmann::json SafetensorsTensor::toJson() const {
    return {{"name", name}, {"dtype", dtype}, {"shape", shape},
            {"data_offsets", {data_begin, data_end}}};
}

nlohmann::json SafetensorsHeader::toJson(bool with_tensors) const {
    nlohmann::json json = {{"tensor_count", tensors.size()},
                           {"parameter_count", parameter_count},
                           {"dtype", main_dtype},
                           {"metadata", metadata}};
    if (with_tensors) {
        nlohmann::json list = nlohmann::json::array();
        for (const SafetensorsTensor& tensor : tensors) list.push_back(tensor.toJson());
        json["tensors"] = std::move(list);
    }
    return json;
}

bool readSafetensorsHeader(const std::string& path, SafetensorsHeader& out) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return false;
    const auto size = static_cast<uint64_t>(file.tellg());
    file.seekg(0);
    unsigned char prefix[8];
    if (size < 8 || !file.read(reinterpret_cast<char*>(prefix), 8)) return false;
    uint64_t length = 0;
    for (int i = 7; i >= 0; --i) length = (length << 8) | prefix[i];
    if (length < 2 || length > kMaxHeaderBytes || length > size - 8) return false;
    std::string text(length, '\0');
    if (!file.read(text.data(), static_cast<std::streamsize>(length))) return false;
    const nlohmann::json header = nlohmann::json::parse(text, nullptr, false);
    if (header.is_discarded() || !header.is_object()) return false;

    SafetensorsHeader result;
    std::map<std::string, long double> per_dtype;
    for (const auto& [name, entry] : header.items()) {
        if (name == "__metadata__") {
            if (!entry.is_object()) return false;
            for (const auto& [key, value] : entry.items())
                result.metadata[key] = value.is_string() ? value.get<std::string>() : value.dump();
            continue;
        }
        SafetensorsTensor tensor;
        if (!readTensor(name, entry, size - 8 - length, tensor)) return false;
        long double count = 1;
        for (uint64_t dim : tensor.shape) count *= static_cast<long double>(dim);
        per_dtype[tensor.dtype] += count;
        const long double total = static_cast<long double>(result.parameter_count) + count;
        result.parameter_count = total > static_cast<long double>(std::numeric_limits<uint64_t>::max())
                                     ? std::numeric_limits<uint64_t>::max()
                                     : static_cast<uint64_t>(total);
        result.tensors.push_back(std::move(tensor));
    }
    long double most = -1;
    for (const auto& [dtype, count] : per_dtype) {
        if (count > most) {
            most = count;
            result.main_dtype = dtype;
        }
    }
    out = std::move(result);
    return true;
}

}  // namespace vostra::pipeline
