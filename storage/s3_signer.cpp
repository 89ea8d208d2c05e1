#include "storage/s3_signer.h"

#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "storage/checksum.h"

namespace vostra::data::s3 {
namespace {

constexpr char kHex[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";

std::string hex(const unsigned char* bytes, std::size_t size) {
    std::string out;
    out.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 0x0f];
    }
    return out;
}

std::string hmac(std::string_view key, std::string_view data) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    unsigned int size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest, &size);
    return std::string(reinterpret_cast<const char*>(digest), size);
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '.' || c == '_' || c == '~';
}

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// Leading and trailing blanks dropped, inner runs of blanks made one space.
std::string canonicalValue(std::string_view value) {
    std::string out;
    bool pending_space = false;
    for (char c : value) {
        if (c == ' ' || c == '\t') {
            pending_space = !out.empty();
            continue;
        }
        if (pending_space) out += ' ';
        pending_space = false;
        out += c;
    }
    return out;
}

}  // namespace

std::string uriEncode(std::string_view text, bool keep_slash) {
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (isUnreserved(c) || (keep_slash && c == '/')) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kUpperHex[c >> 4];
            out += kUpperHex[c & 0x0f];
        }
    }
    return out;
}

std::string objectPath(std::string_view bucket, std::string_view key) {
    // Requests on the bucket itself go to "/<bucket>", which every service
    // signs alike; "/<bucket>/" is not canonical everywhere.
    std::string path = "/" + std::string(bucket);
    if (!key.empty()) path += "/" + uriEncode(key, true);
    return path;
}

std::string canonicalQuery(const Pairs& query) {
    Pairs encoded;
    encoded.reserve(query.size());
    for (const auto& [name, value] : query)
        encoded.emplace_back(uriEncode(name, false), uriEncode(value, false));
    std::sort(encoded.begin(), encoded.end());
    std::string out;
    for (const auto& [name, value] : encoded) {
        if (!out.empty()) out += '&';
        out += name + "=" + value;
    }
    return out;
}

Signature sign(const RequestToSign& request, std::string_view access_key,
               std::string_view secret_key, std::string_view region) {
    Pairs headers;
    headers.reserve(request.headers.size());
    for (const auto& [name, value] : request.headers) {
        std::string key(name);
        std::transform(key.begin(), key.end(), key.begin(), lower);
        headers.emplace_back(std::move(key), canonicalValue(value));
    }
    std::sort(headers.begin(), headers.end());

    Signature out;
    std::string header_lines;
    for (const auto& [name, value] : headers) {
        header_lines += name + ":" + value + "\n";
        if (!out.signed_headers.empty()) out.signed_headers += ';';
        out.signed_headers += name;
    }
    out.canonical_request = request.method + "\n" + request.path + "\n" +
                            canonicalQuery(request.query) + "\n" + header_lines + "\n" +
                            out.signed_headers + "\n" + request.payload_hash;

    const std::string date = request.timestamp.substr(0, 8);
    const std::string scope = date + "/" + std::string(region) + "/s3/aws4_request";
    out.string_to_sign = "AWS4-HMAC-SHA256\n" + request.timestamp + "\n" + scope + "\n" +
                         calculateChecksum(out.canonical_request);

    std::string key = hmac("AWS4" + std::string(secret_key), date);
    key = hmac(key, region);
    key = hmac(key, "s3");
    key = hmac(key, "aws4_request");
    const std::string mac = hmac(key, out.string_to_sign);
    out.signature = hex(reinterpret_cast<const unsigned char*>(mac.data()), mac.size());
    out.authorization = "AWS4-HMAC-SHA256 Credential=" + std::string(access_key) + "/" + scope +
                        ", SignedHeaders=" + out.signed_headers + ", Signature=" + out.signature;
    return out;
}

std::string currentTimestamp() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[17];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

}  // namespace vostra::data::s3
