// The request records of the storage service's read, write and list
// operations. Plain values built by the caller (the HTTP layer, the swarm
// helpers) and passed by reference.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vostra::data {

struct StorageReadRequest {
    std::string tenant_id;
    std::string path;
    bool include_metadata = false;  // set by the HTTP layer; no operation consults it
    int64_t offset = 0;
    int64_t length = -1;  // -1: up to the end
};

struct StorageWriteRequest {
    std::string tenant_id;
    std::string path;
    std::string data;
    std::string content_type;    // empty: detected from the path's extension
    bool create_parents = true;  // accepted; parents are always created
    bool overwrite = true;       // accepted; an existing file is always replaced
    std::map<std::string, std::string> metadata;

    // Fills data, content_type and metadata from an HTTP request body. A JSON
    // object with "data" stores that string alone, decoded from base64 when
    // "encoding" is "base64"; any other body (no "data", not an object, not
    // JSON) is stored as it stands. "content_type" and "metadata" are taken
    // from an object body when present. Returns an error text when one of
    // those members has the wrong type, the encoding is unknown or the
    // base64 is not valid, else empty.
    // Takes the body: a raw body becomes `data` without a copy.
    std::string readBody(std::string&& body);
};

struct StorageListRequest {
    std::string tenant_id;
    std::string path;
    bool recursive = false;
    std::string pattern;  // glob on names; empty: all
    int32_t limit = 1000;
    int32_t offset = 0;
};

}  // namespace vostra::data
