#include "vector/ollama_embedding_provider.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "common/curl_handle.h"
#include "common/log.h"
#include "common/sanitize_utf8.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[Embedding] ");
// A large model on a busy server can take this long for one text; the
// common 10-second HTTP helpers would give up too early, hence our own.
constexpr long kEmbedTimeoutSeconds = 60;
constexpr long kProbeTimeoutSeconds = 5;
constexpr long kProbeConnectTimeoutSeconds = 2;
constexpr std::size_t kDetailBytes = 200;

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
    vostra::CurlHandle handle =
        vostra::newCurlHandle(url_ + "/api/embeddings", response, kEmbedTimeoutSeconds);
    if (!handle) {
        kLog.error("CURL error connecting to ", url_, ": cannot create a handle");
        return zeros;
    }
    // Chunk boundaries may cut a character; the server gets "?" rather than
    // the request failing to encode.
    const std::string payload = nlohmann::json{{"model", model_}, {"prompt", text}}.dump(
        -1, ' ', false, nlohmann::json::error_handler_t::replace);
    vostra::CurlHeaders headers(curl_slist_append(nullptr, "Content-Type: application/json"));
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
    vostra::CurlHandle handle =
        vostra::newCurlHandle(url_ + "/api/tags", response, kProbeTimeoutSeconds);
    if (!handle) return false;
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT, kProbeConnectTimeoutSeconds);
    return curl_easy_perform(handle.get()) == CURLE_OK;
}

}  // namespace vostra::data
