// Writing GGUF files for tests: a header built value by value (any key,
// any value type, nested arrays, tensors), with room for a test to cut or
// corrupt it, and a file written from it, optionally padded out (sparse)
// to a given size. Header-only; not thread-safe.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace vostra::test {

// One GGUF value: its type number and its encoded bytes.
struct GGUFValue {
    uint32_t type = 0;
    std::string bytes;

    template <typename T>
    static GGUFValue scalar(uint32_t type, T value) {
        GGUFValue encoded{type, std::string(sizeof(T), '\0')};
        std::memcpy(encoded.bytes.data(), &value, sizeof(T));  // the test machines are little-endian
        return encoded;
    }
    static GGUFValue u8(uint8_t v) { return scalar(0, v); }
    static GGUFValue i8(int8_t v) { return scalar(1, v); }
    static GGUFValue u16(uint16_t v) { return scalar(2, v); }
    static GGUFValue i16(int16_t v) { return scalar(3, v); }
    static GGUFValue u32(uint32_t v) { return scalar(4, v); }
    static GGUFValue i32(int32_t v) { return scalar(5, v); }
    static GGUFValue f32(float v) { return scalar(6, v); }
    static GGUFValue boolean(bool v) { return scalar(7, static_cast<uint8_t>(v)); }
    static GGUFValue str(const std::string& v) {
        return {8, scalar(10, static_cast<uint64_t>(v.size())).bytes + v};
    }
    static GGUFValue u64(uint64_t v) { return scalar(10, v); }
    static GGUFValue i64(int64_t v) { return scalar(11, v); }
    static GGUFValue f64(double v) { return scalar(12, v); }
    // An array of `element` type; `items` must all be of that type.
    static GGUFValue array(uint32_t element, const std::vector<GGUFValue>& items) {
        GGUFValue encoded{9, scalar(4, element).bytes + scalar(10, uint64_t{items.size()}).bytes};
        for (const GGUFValue& item : items) encoded.bytes += item.bytes;
        return encoded;
    }
};

class GGUFWriter {
public:
    explicit GGUFWriter(uint32_t version = 3) : version_(version) {}

    GGUFWriter& add(const std::string& key, const GGUFValue& value) {
        keys_ += GGUFValue::str(key).bytes + GGUFValue::u32(value.type).bytes + value.bytes;
        ++key_count_;
        return *this;
    }
    // `offset` relative to the start of the tensor data, as stored.
    GGUFWriter& tensor(const std::string& name, const std::vector<uint64_t>& dims, uint32_t type,
                       uint64_t offset) {
        tensors_ += GGUFValue::str(name).bytes + GGUFValue::u32(uint32_t(dims.size())).bytes;
        for (uint64_t dim : dims) tensors_ += GGUFValue::u64(dim).bytes;
        tensors_ += GGUFValue::u32(type).bytes + GGUFValue::u64(offset).bytes;
        ++tensor_count_;
        return *this;
    }
    // Counts to declare instead of the true ones (hostile headers).
    GGUFWriter& declare(uint64_t tensors, uint64_t keys) {
        declared_tensors_ = tensors;
        declared_keys_ = keys;
        return *this;
    }

    std::string header() const {
        return "GGUF" + GGUFValue::u32(version_).bytes +
               GGUFValue::u64(declared_tensors_ ? declared_tensors_ : tensor_count_).bytes +
               GGUFValue::u64(declared_keys_ ? declared_keys_ : key_count_).bytes + keys_ + tensors_;
    }

    // The header, then zeros up to a multiple of 32 and `data_bytes` more;
    // a `total_size` larger than that makes the file sparse up to it.
    static void writeFile(const std::string& path, const std::string& bytes, uint64_t total_size = 0) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        if (total_size > bytes.size()) {
            const int fd = ::open(path.c_str(), O_WRONLY);
            if (fd >= 0) {
                [[maybe_unused]] int ignored = ::ftruncate(fd, static_cast<off_t>(total_size));
                ::close(fd);
            }
        }
    }
    void write(const std::string& path, uint64_t data_bytes = 0) const {
        std::string bytes = header();
        bytes.resize((bytes.size() + 31) / 32 * 32 + data_bytes, '\0');
        writeFile(path, bytes);
    }

private:
    uint32_t version_;
    std::string keys_;
    std::string tensors_;
    uint64_t key_count_ = 0;
    uint64_t tensor_count_ = 0;
    uint64_t declared_tensors_ = 0;
    uint64_t declared_keys_ = 0;
};

}  // namespace vostra::test
