// XDR (RFC 4506) reading and writing for the built-in NFS responder: big-
// endian 32- and 64-bit numbers and opaque data padded to four bytes. The
// reader never reads past its buffer: every length is checked against what
// is left (and against the caller's limit) before anything is taken, and a
// failed read leaves the reader failed for good. Value types; not
// thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vostra::data::xdr {

class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool ok() const { return ok_; }
    std::size_t remaining() const { return rest_.size(); }

    uint32_t u32();
    uint64_t u64();
    bool boolean() { return u32() != 0; }
    // Variable-length opaque data or string of at most `max` bytes.
    std::string_view opaque(uint32_t max);
    // `size` bytes of fixed-length opaque data.
    std::string_view fixed(uint32_t size);
    // Skips variable-length opaque data of at most `max` bytes.
    void skipOpaque(uint32_t max) { (void)opaque(max); }

private:
    std::string_view take(std::size_t size);

    std::string_view rest_;
    bool ok_ = true;
};

class Writer {
public:
    Writer& u32(uint32_t value);
    Writer& u64(uint64_t value);
    Writer& boolean(bool value) { return u32(value ? 1 : 0); }
    // Length, bytes, zero padding.
    Writer& opaque(std::string_view bytes);
    // Bytes and zero padding, no length.
    Writer& fixed(std::string_view bytes);

    std::string& bytes() { return out_; }
    std::size_t size() const { return out_.size(); }

private:
    std::string out_;
};

}  // namespace vostra::data::xdr
