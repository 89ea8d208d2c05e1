#include "models/gguf_parser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>

namespace vostra::pipeline {
namespace {

// Longer keys and tensor names are passed over unread.
constexpr uint64_t kMaxNameBytes = 1 << 20;
// Real models hold thousands of tensors and a few hundred keys; these
// bounds keep a hostile header from filling memory with empty records.
constexpr uint64_t kMaxTensors = 1'000'000;
constexpr uint64_t kMaxKeys = 1'000'000;
constexpr uint32_t kMaxDimensions = 16;
constexpr int kMaxArrayDepth = 16;
constexpr uint64_t kAlignment = 32;
// The smallest a key/value pair (key length, value type) and a tensor
// record (name length, dimension count, type, offset) can be.
constexpr uint64_t kMinKeyBytes = 8 + 4;
constexpr uint64_t kMinTensorBytes = 8 + 4 + 4 + 8;

constexpr std::array<const char*, 31> kTypeNames = {
    "f32",  "f16",  "q4_0",  "q4_1",    "unknown", "unknown", "q5_0",   "q5_1",
    "q8_0", "q8_1", "q2_k",  "q3_k",    "q4_k",    "q5_k",    "q6_k",   "q8_k",
    "iq2_xxs", "iq2_xs", "iq3_xxs", "iq1_s", "iq4_nl", "iq3_s", "iq2_s", "iq4_xs",
    "i8",   "i16",  "i32",   "i64",     "f64",     "iq1_m",   "bf16",
};

constexpr const char* kQuantizationTags[] = {
    "Q8_0",   "Q6_K",   "Q5_K_M",  "Q5_K_S", "Q4_K_M", "Q4_K_S", "Q4_0", "Q3_K_M",
    "Q3_K_S", "Q2_K",   "IQ4_XS",  "IQ3_XXS", "F16",   "F32",    "BF16",
};

// Bytes of one scalar of a value type; 0 for strings and arrays.
uint64_t scalarSize(uint32_t type) {
    switch (type) {
        case GGUFParser::kUint8:
        case GGUFParser::kInt8:
        case GGUFParser::kBool: return 1;
        case GGUFParser::kUint16:
        case GGUFParser::kInt16: return 2;
        case GGUFParser::kUint32:
        case GGUFParser::kInt32:
        case GGUFParser::kFloat32: return 4;
        case GGUFParser::kUint64:
        case GGUFParser::kInt64:
        case GGUFParser::kFloat64: return 8;
        default: return 0;
    }
}

// A length-prefixed string; one longer than `limit` is passed over and
// read as empty. False when the bytes are not there.
bool readString(GGUFReader& file, std::string& out, uint64_t limit) {
    uint64_t length = 0;
    if (!file.readLittle(length) || length > file.remaining()) return false;
    out.clear();
    if (length > limit) return file.skip(length);
    out.resize(length);
    return file.read(out.data(), length);
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// Whether a tensor belongs to the token embedding or the output head.
bool isEmbedding(const std::string& name) {
    return name.starts_with("token_embd") || contains(name, "embed_tokens");
}
bool isOutput(const std::string& name) {
    return name == "output" || name.starts_with("output.") || contains(name, "lm_head");
}

// The layer number of a "blk.<n>." tensor; -1 for other tensors.
int64_t layerOf(const std::string& name) {
    if (!name.starts_with("blk.")) return -1;
    int64_t layer = 0;
    std::size_t i = 4;
    if (i >= name.size() || !std::isdigit(static_cast<unsigned char>(name[i]))) return -1;
    for (; i < name.size() && std::isdigit(static_cast<unsigned char>(name[i])); ++i) {
        if (layer > 1'000'000'000) return -1;
        layer = layer * 10 + (name[i] - '0');
    }
    return i == name.size() || name[i] == '.' ? layer : -1;
}

}  // namespace

bool GGUFReader::read(void* out, uint64_t count) {
    if (failed_ || count > remaining()) {
        failed_ = true;
        return false;
    }
    auto* bytes = static_cast<char*>(out);
    uint64_t done = 0;
    while (done < count) {
        const ssize_t got = ::pread(fd_, bytes + done, count - done, static_cast<off_t>(position_ + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            failed_ = true;
            return false;
        }
        done += static_cast<uint64_t>(got);
    }
    position_ += count;
    return true;
}

bool GGUFReader::skip(uint64_t count) {
    if (failed_ || count > remaining()) {
        failed_ = true;
        return false;
    }
    position_ += count;
    return true;
}

template <typename T>
bool GGUFReader::readLittle(T& value) {
    std::array<unsigned char, sizeof(T)> bytes;
    if (!read(bytes.data(), bytes.size())) return false;
    if constexpr (std::endian::native == std::endian::big) std::reverse(bytes.begin(), bytes.end());
    std::memcpy(&value, bytes.data(), sizeof(T));
    return true;
}

nlohmann::json GGUFTensorInfo::toJson() const {
    return {{"name", name}, {"dims", dims}, {"type", type}, {"type_name", type_name},
            {"offset", offset}};
}

nlohmann::json GGUFLayerRange::toJson() const {
    return {{"layer", layer},
            {"start_offset", start_offset},
            {"end_offset", end_offset},
            {"size_bytes", size_bytes},
            {"tensor_count", tensor_count}};
}

nlohmann::json GGUFModelMetadata::toJson(bool with_tensors) const {
    nlohmann::json layer_list = nlohmann::json::array();
    for (const GGUFLayerRange& layer : layers) layer_list.push_back(layer.toJson());
    nlohmann::json json = {{"file_name", file_name},
                           {"model_type", architecture},
                           {"model_name", model_name},
                           {"file_type", file_type},
                           {"file_size_bytes", file_size},
                           {"version", version},
                           {"tensor_count", tensor_count},
                           {"metadata_count", metadata_count},
                           {"block_count", block_count},
                           {"hidden_size", embedding_length},
                           {"head_count", head_count},
                           {"head_count_kv", head_count_kv},
                           {"vocab_size", vocab_size},
                           {"context_length", context_length},
                           {"quantization", quantization},
                           {"tensor_data_offset", tensor_data_offset},
                           {"embed_size", embed_size},
                           {"output_size", output_size},
                           {"layers", std::move(layer_list)}};
    if (with_tensors) {
        nlohmann::json list = nlohmann::json::array();
        for (const GGUFTensorInfo& tensor : tensors) list.push_back(tensor.toJson());
        json["tensors"] = std::move(list);
    }
    return json;
}

std::string GGUFParser::typeName(uint32_t type) {
    return type < kTypeNames.size() ? kTypeNames[type] : "unknown";
}

int64_t GGUFParser::readInt(GGUFReader& file, uint32_t type) {
    switch (type) {
        case kUint8: { uint8_t v = 0; return file.readLittle(v) ? v : 0; }
        case kInt8: { int8_t v = 0; return file.readLittle(v) ? v : 0; }
        case kBool: { uint8_t v = 0; return file.readLittle(v) ? (v != 0) : 0; }
        case kUint16: { uint16_t v = 0; return file.readLittle(v) ? v : 0; }
        case kInt16: { int16_t v = 0; return file.readLittle(v) ? v : 0; }
        case kUint32: { uint32_t v = 0; return file.readLittle(v) ? v : 0; }
        case kInt32: { int32_t v = 0; return file.readLittle(v) ? v : 0; }
        case kUint64: {
            uint64_t v = 0;
            if (!file.readLittle(v)) return 0;
            return v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                       ? std::numeric_limits<int64_t>::max()
                       : static_cast<int64_t>(v);
        }
        case kInt64: { int64_t v = 0; return file.readLittle(v) ? v : 0; }
        case kFloat32: {
            float v = 0;
            if (!file.readLittle(v) || !(v > -9.2e18f && v < 9.2e18f)) return 0;
            return static_cast<int64_t>(v);
        }
        case kFloat64: {
            double v = 0;
            if (!file.readLittle(v) || !(v > -9.2e18 && v < 9.2e18)) return 0;
            return static_cast<int64_t>(v);
        }
        default: skipTypedValue(file, type); return 0;
    }
}

std::string GGUFParser::readTypedValue(GGUFReader& file, uint32_t type) {
    char text[64];
    switch (type) {
        case kString: {
            std::string value;
            return readString(file, value, kMaxNameBytes) ? value : std::string();
        }
        case kBool: return readInt(file, type) ? "true" : "false";
        case kFloat32: {
            float v = 0;
            if (!file.readLittle(v)) return {};
            std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
            return text;
        }
        case kFloat64: {
            double v = 0;
            if (!file.readLittle(v)) return {};
            std::snprintf(text, sizeof text, "%.17g", v);
            return text;
        }
        case kUint64: {
            uint64_t v = 0;
            if (!file.readLittle(v)) return {};
            return std::to_string(v);
        }
        case kArray: {
            uint32_t element = 0;
            uint64_t count = 0;
            if (!file.readLittle(element) || !file.readLittle(count) ||
                !skipArrayElements(file, element, count, 1))
                return {};
            return "[array of " + std::to_string(count) + "]";
        }
        default:
            if (scalarSize(type) == 0) {
                skipTypedValue(file, type);
                return {};
            }
            return std::to_string(readInt(file, type));
    }
}

bool GGUFParser::skipTypedValue(GGUFReader& file, uint32_t type, int depth) {
    if (const uint64_t size = scalarSize(type)) return file.skip(size);
    if (type == kString) {
        uint64_t length = 0;
        return file.readLittle(length) && file.skip(length);
    }
    if (type != kArray || depth >= kMaxArrayDepth) return file.fail();
    uint32_t element = 0;
    uint64_t count = 0;
    return file.readLittle(element) && file.readLittle(count) &&
           skipArrayElements(file, element, count, depth + 1);
}

bool GGUFParser::skipArrayElements(GGUFReader& file, uint32_t element, uint64_t count,
                                   int depth) {
    if (const uint64_t size = scalarSize(element)) {
        if (count > file.remaining() / size) return file.fail();
        return file.skip(count * size);
    }
    // Each string needs its 8-byte length and each array its 12-byte
    // header, so a count the file cannot hold is refused before looping.
    const uint64_t least = element == kString ? 8 : element == kArray ? 12 : 0;
    if (least == 0 || count > file.remaining() / least) return file.fail();
    for (uint64_t i = 0; i < count; ++i)
        if (!skipTypedValue(file, element, depth)) return false;
    return true;
}

bool GGUFParser::parseMetadata(const std::string& path, GGUFModelMetadata& out) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return false;
    }
    GGUFModelMetadata meta;
    meta.file_size = static_cast<uint64_t>(info.st_size);
    GGUFReader file(fd, meta.file_size);
    auto fail = [&] {
        ::close(fd);
        return false;
    };

    char magic[4];
    if (!file.read(magic, 4) || std::memcmp(magic, "GGUF", 4) != 0) return fail();
    if (!file.readLittle(meta.version) || (meta.version != 2 && meta.version != 3)) return fail();
    if (!file.readLittle(meta.tensor_count) || !file.readLittle(meta.metadata_count)) return fail();
    if (meta.metadata_count > kMaxKeys || meta.metadata_count > file.remaining() / kMinKeyBytes)
        return fail();

    std::string key;
    for (uint64_t i = 0; i < meta.metadata_count; ++i) {
        uint32_t type = 0;
        if (!readString(file, key, kMaxNameBytes) || !file.readLittle(type)) return fail();
        if (key == "general.architecture") {
            meta.architecture = readTypedValue(file, type);
        } else if (key == "general.name") {
            meta.model_name = readTypedValue(file, type);
        } else if (key == "general.file_type") {
            meta.file_type = readInt(file, type);
        } else if (key == "general.quantization_version") {
            skipTypedValue(file, type);
        } else if (contains(key, ".block_count")) {
            meta.block_count = readInt(file, type);
        } else if (contains(key, ".embedding_length")) {
            meta.embedding_length = readInt(file, type);
        } else if (contains(key, ".attention.head_count")) {
            (contains(key, "head_count_kv") ? meta.head_count_kv : meta.head_count) =
                readInt(file, type);
        } else if (contains(key, ".context_length")) {
            meta.context_length = readInt(file, type);
        } else if (contains(key, ".vocab_size") || key == "tokenizer.ggml.tokens") {
            if (type == kArray) {
                // Only the header: the count is the vocabulary size, and
                // reading goes on from the first element (kept on purpose).
                uint32_t element = 0;
                uint64_t count = 0;
                if (!file.readLittle(element) || !file.readLittle(count)) return fail();
                meta.vocab_size = count > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                                      ? std::numeric_limits<int64_t>::max()
                                      : static_cast<int64_t>(count);
            } else {
                meta.vocab_size = readInt(file, type);
            }
        } else {
            skipTypedValue(file, type);
        }
        if (file.failed()) return fail();
    }

    if (meta.tensor_count > kMaxTensors || meta.tensor_count > file.remaining() / kMinTensorBytes)
        return fail();
    for (uint64_t i = 0; i < meta.tensor_count; ++i) {
        GGUFTensorInfo tensor;
        uint32_t dimensions = 0;
        if (!readString(file, tensor.name, kMaxNameBytes) || !file.readLittle(dimensions) ||
            dimensions > kMaxDimensions)
            return fail();
        tensor.dims.resize(dimensions);
        for (uint64_t& dim : tensor.dims)
            if (!file.readLittle(dim)) return fail();
        if (!file.readLittle(tensor.type) || !file.readLittle(tensor.offset)) return fail();
        tensor.type_name = typeName(tensor.type);
        meta.tensors.push_back(std::move(tensor));
    }

    // Always 32: the file's own "general.alignment" is not consulted.
    meta.tensor_data_offset = (file.position() + kAlignment - 1) / kAlignment * kAlignment;
    for (GGUFTensorInfo& tensor : meta.tensors) {
        if (tensor.offset > std::numeric_limits<uint64_t>::max() - meta.tensor_data_offset)
            return fail();
        tensor.offset += meta.tensor_data_offset;
    }
    ::close(fd);
    meta.file_name = path.substr(path.rfind('/') + 1);
    detectQuantization(meta);
    computeLayerRanges(meta);
    out = std::move(meta);
    return true;
}

void GGUFParser::detectQuantization(GGUFModelMetadata& metadata) {
    std::string name = metadata.file_name;
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const char* tag : kQuantizationTags) {
        if (contains(name, tag)) {
            metadata.quantization = tag;
            return;
        }
    }
    // No tag: the type holding the most weights. Vectors (norms, biases)
    // stay in f32 whatever the quantization, so only matrices count.
    std::map<uint32_t, long double> elements;
    for (const GGUFTensorInfo& tensor : metadata.tensors) {
        if (tensor.dims.size() < 2) continue;
        long double count = 1;
        for (uint64_t dim : tensor.dims) count *= static_cast<long double>(dim);
        elements[tensor.type] += count;
    }
    if (elements.empty()) {
        metadata.quantization = "unknown";
        return;
    }
    const auto most = std::ranges::max_element(
        elements, [](const auto& a, const auto& b) { return a.second < b.second; });
    std::string type = typeName(most->first);
    for (char& c : type) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    metadata.quantization = type == "UNKNOWN" ? "unknown" : type;
}

void GGUFParser::computeLayerRanges(GGUFModelMetadata& metadata) {
    std::vector<const GGUFTensorInfo*> by_offset;
    for (const GGUFTensorInfo& tensor : metadata.tensors) by_offset.push_back(&tensor);
    std::ranges::stable_sort(by_offset, {}, &GGUFTensorInfo::offset);
    std::map<int64_t, GGUFLayerRange> layers;
    metadata.embed_size = metadata.output_size = 0;
    for (std::size_t i = 0; i < by_offset.size(); ++i) {
        const GGUFTensorInfo& tensor = *by_offset[i];
        const uint64_t end = std::max(
            tensor.offset, i + 1 < by_offset.size() ? by_offset[i + 1]->offset
                                                    : std::max(metadata.file_size, tensor.offset));
        const uint64_t size = end - tensor.offset;
        if (isEmbedding(tensor.name)) metadata.embed_size += size;
        if (isOutput(tensor.name)) metadata.output_size += size;
        const int64_t layer = layerOf(tensor.name);
        if (layer < 0) continue;
        auto [it, added] = layers.try_emplace(layer);
        GGUFLayerRange& range = it->second;
        if (added) {
            range.layer = layer;
            range.start_offset = tensor.offset;
        }
        range.start_offset = std::min(range.start_offset, tensor.offset);
        range.end_offset = std::max(range.end_offset, end);
        range.size_bytes += size;
        ++range.tensor_count;
    }
    metadata.layers.clear();
    for (auto& [layer, range] : layers) metadata.layers.push_back(range);
}

}  // namespace vostra::pipeline
