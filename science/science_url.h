// Building the URLs the gateway sends, and keeping keys out of the texts it
// reports. Pure functions; thread-safe.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vostra::data {

// `text` percent-encoded except for RFC 3986 unreserved characters, so a
// value can never end its parameter or path segment early.
std::string escapeUrlComponent(std::string_view text);

// The base URL, the endpoint (joined with exactly one "/") and the
// parameters as an escaped query string, added with "?" or "&" as the URL
// already has a query or not.
std::string buildUrl(std::string_view base_url, std::string_view endpoint,
                     const std::map<std::string, std::string>& params);

// `url` with name=value appended to its query string.
std::string appendQueryParameter(std::string url, std::string_view name, std::string_view value);

// `text` with the value of each query parameter in `names` replaced by
// "***", and every occurrence of each secret in `secrets` too (a key may
// appear outside a query string, e.g. in a transport error).
std::string maskSecrets(std::string text, const std::vector<std::string>& names,
                        const std::vector<std::string>& secrets);

}  // namespace vostra::data
