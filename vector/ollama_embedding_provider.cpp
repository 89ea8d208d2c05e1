#include "vector/ollama_embedding_provider.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "connectors/sanitize_utf8.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[Embedding] ");
// A large model on a busy server can take this long for one text; the
// common 10-second HTTP helpers would give up too early, hence our own.
constexpr long kEmbedTimeoutSeconds = 60;
constexpr long kProbeTimeoutSeconds = 5;
constexpr long kProbeConnectTimeoutSeconds = 2;
constexpr std::size_t kDetailBytes = 200;

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;

size_t appendToString(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

CurlHandle newHandle(const std::string& url, std::string& response, long timeout_seconds) {
    // curl_global_init is not thread-safe; the first call must not race.
    static std::once_flag global_init;
    std::call_once(global_init, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    CurlHandle handle(curl_easy_init());
    if (!handle) return handle;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, appendToString);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &response);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, timeout_seconds);
    // Signals would interrupt other threads' sleeps; resolver time-outs need none.
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    return handle;
}

// The start of an unexpected answer, safe to print.
std::string detail(const std::string& body) {
    return sanitize_utf8(body.substr(0, kDetailBytes));
}

}  // namespace

OllamaEmbeddingProvider::OllamaEmbeddingProvider(std::string url, std::string model,
                                                 int32_t dimension)
    : url_(std::move(url)), model_(std::move(model)), dimension_(dimension) {}

std::vector<float> OllamaEmbeddingProvider::requestEmbedding(const std::string& text) const {
    const std::vector<float> zeros(static_cast<std::size_t>(std::max<int32_t>(0, dimension_)),
                                   0.0f);
    std::string response;
    CurlHandle handle = newHandle(url_ + "/api/embeddings", response, kEmbedTimeoutSeconds);
    if (!handle) {
        kLog.error("CURL error connecting to ", url_, ": cannot create a handle");
        return zeros;
    }
    // Chunk boundaries may cut a character; the server gets "?" rather than
    // the request failing to encode.
    const std::string payload = nlohmann::json{{"model", model_}, {"prompt", text}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::unique_ptr<curl_slist, SlistDeleter> headers(
        curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, payload.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());

    const CURLcode code = curl_easy_perform(handle.get());
    if (code != CURLE_OK) {
        kLog.error("CURL error connecting to ", url_, ": ", curl_easy_strerror(code));
        return zeros;
    }
    const auto answer = nlohmann::json::parse(response, nullptr, /*allow_exceptions=*/false);
    if (answer.is_discarded()) {
        kLog.error("Parse error from ", url_);
        return zeros;
    }
    const auto it = answer.is_object() ? answer.find("embedding") : answer.end();
    if (it == answer.end() || !it->is_array()) {
        kLog.error("Unexpected response from ", url_, ": ", detail(response));
        return zeros;
    }
    std::vector<float> vector;
    vector.reserve(it->size());
    for (const nlohmann::json& value : *it) {
        if (!value.is_number()) {
            kLog.error("Unexpected response from ", url_, ": non-numeric embedding value");
            return zeros;
        }
        vector.push_back(value.get<float>());
    }
    return vector;
}

std::vector<std::vector<float>> OllamaEmbeddingProvider::embedBatch(
    const std::vector<std::string>& texts) {
    std::vector<std::vector<float>> vectors;
    vectors.reserve(texts.size());
    for (const std::string& text : texts)
        vectors.push_back(requestEmbedding(text));
    return vectors;
}

std::vector<float> OllamaEmbeddingProvider::embed(const std::string& text) {
    auto vectors = embedBatch({text});
    return vectors.empty() ? std::vector<float>{} : std::move(vectors.front());
}

bool OllamaEmbeddingProvider::isAvailable() {
    std::string response;
    CurlHandle handle = newHandle(url_ + "/api/tags", response, kProbeTimeoutSeconds);
    if (!handle) return false;
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, kProbeConnectTimeoutSeconds);
    return curl_easy_perform(handle.get()) == CURLE_OK;
}

}  // namespace vostra::data
