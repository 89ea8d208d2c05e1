// AWS Signature Version 4 for S3 requests: the canonical request, the
// string to sign and the signature, computed from a request description and
// a time stamp so that each step can be checked against a reference signer.
// Pure functions and a value type; thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vostra::data::s3 {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// RFC 3986 percent-encoding as S3 wants it: letters, digits and "-._~" stay,
// every other byte becomes "%XX" (upper-case hex). With `keep_slash`, "/"
// stays too (object keys in paths); without, it becomes "%2F" (query values).
std::string uriEncode(std::string_view text, bool keep_slash);

// The path-style request path of an object: "/" + bucket + "/" + the key
// encoded (slashes kept); "/" + bucket alone for the bucket itself.
std::string objectPath(std::string_view bucket, std::string_view key);

// "name=value" pairs encoded and sorted (by name, then value), joined by "&".
std::string canonicalQuery(const Pairs& query);

// What a request is signed over. `path` is the request path already encoded
// (it is sent as it stands); `query` and `headers` are plain text. Header
// names may be of any case; values are trimmed and inner runs of spaces
// collapsed when signed.
struct RequestToSign {
    std::string method;
    std::string path;
    Pairs query;
    Pairs headers;
    std::string payload_hash;
    std::string timestamp;  // "%Y%m%dT%H%M%SZ", UTC
};

struct Signature {
    std::string canonical_request;
    std::string string_to_sign;
    std::string signature;      // 64 lower-case hex digits
    std::string signed_headers; // "host;x-amz-content-sha256;x-amz-date", …
    std::string authorization;  // the "Authorization" header's value
};

// Signs `request` for service "s3" in `region` with the given key pair.
Signature sign(const RequestToSign& request, std::string_view access_key,
               std::string_view secret_key, std::string_view region);

// The current UTC time as "%Y%m%dT%H%M%SZ".
std::string currentTimestamp();

}  // namespace vostra::data::s3
