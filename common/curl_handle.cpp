#include "common/curl_handle.h"

#include <mutex>

namespace vostra {
namespace {

size_t appendToString(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

}  // namespace

CurlHandle newCurlHandle(const std::string& url, std::string& response, long timeout_seconds) {
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

}  // namespace vostra
