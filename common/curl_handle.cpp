#include "common/curl_handle.h"

#include <mutex>

namespace vostra {
namespace {

size_t appendToString(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

std::once_flag global_init;

void initializeCurl() {
    // curl_global_init is not thread-safe; the first call must not race.
    std::call_once(global_init, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

void prepare(CURL* handle, const std::string& url, std::string& response, long timeout_seconds) {
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, appendToString);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &response);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, timeout_seconds);
    // Signals would interrupt other threads' sleeps; resolver time-outs need none.
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
}
}  // namespace

CurlHandle newCurlHandle(const std::string& url, std::string& response, long timeout_seconds) {
    initializeCurl();
    CurlHandle handle(curl_easy_init());
    if (handle) prepare(handle.get(), url, response, timeout_seconds);
    return handle;
}

CurlHandlePool::Lease::~Lease() {
    if (handle_) pool_->giveBack(handle_);
}

CurlHandlePool::~CurlHandlePool() {
    for (CURL* handle : idle_)
        curl_easy_cleanup(handle);
}

CurlHandlePool::Lease CurlHandlePool::lease(const std::string& url, std::string& response,
                                            long timeout_seconds) const {
    CURL* handle = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            handle = idle_.back();
            idle_.pop_back();
        }
    }
    if (!handle) {
        initializeCurl();
        handle = curl_easy_init();
    }
    if (handle) prepare(handle, url, response, timeout_seconds);
    return Lease(this, handle);
}

void CurlHandlePool::giveBack(CURL* handle) const {
    // Every option back to its default; the open connections stay.
    curl_easy_reset(handle);
    {
        std::lock_guard lock(mutex_);
        if (idle_.size() < max_idle_) {
            idle_.push_back(handle);
            return;
        }
    }
    curl_easy_cleanup(handle);
}

}  // namespace vostra
