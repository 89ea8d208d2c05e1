#include "common/http_client.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

namespace vostra {
namespace {

constexpr long kTimeoutSeconds = 10;

size_t appendToString(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;

CurlHandle newHandle(const std::string& url, std::string& response) {
    // curl_global_init is not thread-safe; the first call must not race.
    static std::once_flag global_init;
    std::call_once(global_init, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

    CurlHandle handle(curl_easy_init());
    if (!handle) return handle;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, appendToString);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &response);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, kTimeoutSeconds);
    // Signals would interrupt other threads' sleeps; resolver time-outs need none.
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    return handle;
}

bool parseInto(const std::string& text, nlohmann::json& out) {
    auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return false;
    out = std::move(parsed);
    return true;
}

}  // namespace

bool httpGet(const std::string& url, nlohmann::json& out) {
    std::string response;
    CurlHandle handle = newHandle(url, response);
    if (!handle || curl_easy_perform(handle.get()) != CURLE_OK) return false;
    return parseInto(response, out);
}

bool httpPost(const std::string& url, const nlohmann::json& body, nlohmann::json& out) {
    std::string response;
    CurlHandle handle = newHandle(url, response);
    if (!handle) return false;
    const std::string payload = body.dump();
    std::unique_ptr<curl_slist, SlistDeleter> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, payload.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    if (curl_easy_perform(handle.get()) != CURLE_OK) return false;

    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    return parseInto(response, out) && status < 400;
}

}  // namespace vostra
