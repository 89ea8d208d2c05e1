#include "common/http_client.h"

#include <nlohmann/json.hpp>

#include "common/curl_handle.h"

namespace vostra {
namespace {

constexpr long kTimeoutSeconds = 10;

bool parseInto(const std::string& text, nlohmann::json& out) {
    auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return false;
    out = std::move(parsed);
    return true;
}

}  // namespace

bool httpGet(const std::string& url, nlohmann::json& out) {
    std::string response;
    CurlHandle handle = newCurlHandle(url, response, kTimeoutSeconds);
    if (!handle || curl_easy_perform(handle.get()) != CURLE_OK) return false;
    return parseInto(response, out);
}

bool httpPost(const std::string& url, const nlohmann::json& body, nlohmann::json& out) {
    std::string response;
    CurlHandle handle = newCurlHandle(url, response, kTimeoutSeconds);
    if (!handle) return false;
    const std::string payload = body.dump();
    CurlHeaders headers(curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, payload.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    if (curl_easy_perform(handle.get()) != CURLE_OK) return false;

    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    return parseInto(response, out) && status < 400;
}

}  // namespace vostra
