// Readers for the XML answers of an S3 service: one page of a
// ListObjectsV2 listing and the error document that comes with a failed
// request. A plain scan for the few elements needed, tolerant of anything
// else in the document; text is un-escaped (keys may hold "&" or "<").
// Pure functions; thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vostra::data::s3 {

struct ListedObject {
    std::string key;
    int64_t size = 0;
    std::string last_modified;  // ISO 8601, as the service wrote it
};

struct ListPage {
    std::vector<ListedObject> objects;        // <Contents>
    std::vector<std::string> common_prefixes; // <CommonPrefixes><Prefix>
    bool truncated = false;
    std::string next_token;                   // <NextContinuationToken>
};

// False when `xml` is not a listing (no <ListBucketResult>) or a truncated
// page names no token to go on with.
bool parseListPage(std::string_view xml, ListPage& page);

// "<Code> <Message>" of an error document, or "" when there is none.
std::string errorDetail(std::string_view xml);

// The five predefined XML entities and numeric character references
// replaced by what they stand for; anything unknown is kept as it stands.
std::string xmlUnescape(std::string_view text);

}  // namespace vostra::data::s3
