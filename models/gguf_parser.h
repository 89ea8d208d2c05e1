// GGUFParser: reads the header of a GGUF model file (its metadata keys and
// tensor table, never the tensor data) into a GGUFModelMetadata record, and
// works out the model's quantization and the byte range of each layer.
//
// The reader trusts nothing in the file: every count and length is bounded
// by the bytes that remain, nesting by a fixed depth, so a truncated or
// hostile header costs at most the file's size in reading and yields false.
// Stateless; thread-safe.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::pipeline {

struct GGUFTensorInfo {
    std::string name;
    std::vector<uint64_t> dims;
    uint32_t type = 0;      // ggml type number
    std::string type_name;  // "f16", "q4_k", ...; "unknown" for a number not in the table
    uint64_t offset = 0;    // absolute, from the start of the file

    nlohmann::json toJson() const;
};

// The bytes of one layer's tensors ("blk.<n>.*"), each tensor reaching to
// the next tensor's start (or the end of the file), padding included.
struct GGUFLayerRange {
    int64_t layer = 0;
    uint64_t start_offset = 0;
    uint64_t end_offset = 0;  // one past the last byte
    uint64_t size_bytes = 0;
    int64_t tensor_count = 0;

    nlohmann::json toJson() const;
};

struct GGUFModelMetadata {
    std::string file_name;
    uint64_t file_size = 0;
    uint32_t version = 0;
    uint64_t tensor_count = 0;
    uint64_t metadata_count = 0;
    std::string architecture;  // "general.architecture"
    std::string model_name;    // "general.name"
    int64_t file_type = -1;    // "general.file_type"; -1 when absent
    int64_t block_count = 0;
    int64_t embedding_length = 0;
    int64_t head_count = 0;
    int64_t head_count_kv = 0;
    int64_t vocab_size = 0;
    int64_t context_length = 0;
    std::string quantization;
    uint64_t tensor_data_offset = 0;
    std::vector<GGUFTensorInfo> tensors;
    std::vector<GGUFLayerRange> layers;
    uint64_t embed_size = 0;
    uint64_t output_size = 0;

    // "file_name", "model_type" (the architecture), "model_name",
    // "file_type", "file_size_bytes", "version", "tensor_count",
    // "metadata_count", "block_count", "hidden_size", "head_count",
    // "head_count_kv", "vocab_size", "context_length", "quantization",
    // "tensor_data_offset", "embed_size", "output_size", "layers" and, with
    // `with_tensors`, "tensors".
    nlohmann::json toJson(bool with_tensors = true) const;
};

// The bytes of a file being read: a position that never passes the end.
// Not thread-safe; one per parse.
class GGUFReader {
public:
    explicit GGUFReader(int fd, uint64_t size) : fd_(fd), size_(size) {}

    uint64_t position() const { return position_; }
    uint64_t remaining() const { return size_ - position_; }
    // False (and nothing read) when fewer than `count` bytes remain or the
    // read fails; a failure sticks.
    bool read(void* out, uint64_t count);
    bool skip(uint64_t count);
    bool failed() const { return failed_; }
    // Marks the header unusable (a value that cannot be what it claims);
    // returns false for the caller to pass on.
    bool fail() {
        failed_ = true;
        return false;
    }

    template <typename T>
    bool readLittle(T& value);

private:
    int fd_;
    uint64_t size_;
    uint64_t position_ = 0;
    bool failed_ = false;
};

class GGUFParser {
public:
    // GGUF value types.
    enum ValueType : uint32_t {
        kUint8 = 0, kInt8, kUint16, kInt16, kUint32, kInt32, kFloat32, kBool, kString,
        kArray, kUint64, kInt64, kFloat64,
    };

    // True when the header of the file at `path` was read whole into `out`;
    // false for a file that cannot be opened, lacks the "GGUF" magic, has a
    // version other than 2 or 3, or whose header is cut short or holds
    // impossible counts or lengths.
    static bool parseMetadata(const std::string& path, GGUFModelMetadata& out);

    // One scalar of `type` as an integer (floats truncated, bools 0 or 1);
    // a string or array is skipped and gives 0.
    static int64_t readInt(GGUFReader& file, uint32_t type);
    // One value of any type as text: numbers in decimal, bools as
    // "true"/"false", strings as they are, arrays as "[array of N]".
    static std::string readTypedValue(GGUFReader& file, uint32_t type);
    // Skips one value of `type`, strings and (nested) arrays included.
    static bool skipTypedValue(GGUFReader& file, uint32_t type, int depth = 0);

    // From the file name's tag (first match of a fixed list, "F16" before
    // "BF16"); without one, from the tensor type holding the most bytes
    // among tensors of two or more dimensions.
    static void detectQuantization(GGUFModelMetadata& metadata);
    static void computeLayerRanges(GGUFModelMetadata& metadata);

    // The ggml name of a tensor type number; "unknown" past the table.
    static std::string typeName(uint32_t type);

private:
    // Skips `count` elements of `element` type, refusing a count the rest
    // of the file cannot hold.
    static bool skipArrayElements(GGUFReader& file, uint32_t element, uint64_t count, int depth);
};

}  // namespace vostra::pipeline
