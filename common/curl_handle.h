// libcurl easy handles set up the way every outgoing call of the daemon wants
// them: the URL, the answer collected into a string, a total time-out, and no
// signals. Owned by the caller; the global libcurl set-up happens once, on the
// first handle, whichever thread asks first.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vostra {

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlSlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;
using CurlHeaders = std::unique_ptr<curl_slist, CurlSlistDeleter>;

// A handle for `url` that appends the answer to `response` (which must
// outlive the transfer); nullptr when libcurl cannot make one.
CurlHandle newCurlHandle(const std::string& url, std::string& response, long timeout_seconds);

// Easy handles kept for reuse, each with the connections it opened, so that
// a client making many requests to one service pays for a connection once
// rather than per request, while requests still run side by side (each on
// a handle of its own). Thread-safe; keeps at most `max_idle` idle handles.
// Must outlive every lease. Not copyable.
class CurlHandlePool {
public:
    // A handle lent by the pool; given back (settings reset, connections
    // kept) when destroyed. Empty when libcurl could not make one.
    class Lease {
    public:
        Lease(const CurlHandlePool* pool, CURL* handle) : pool_(pool), handle_(handle) {}
        Lease(Lease&& other) noexcept
            : pool_(other.pool_), handle_(std::exchange(other.handle_, nullptr)) {}
        Lease& operator=(Lease&&) = delete;
        ~Lease();
        CURL* get() const { return handle_; }
        explicit operator bool() const { return handle_ != nullptr; }

    private:
        const CurlHandlePool* pool_;
        CURL* handle_;
    };

    explicit CurlHandlePool(std::size_t max_idle = 16) : max_idle_(max_idle) {}
    ~CurlHandlePool();
    CurlHandlePool(const CurlHandlePool&) = delete;
    CurlHandlePool& operator=(const CurlHandlePool&) = delete;

    // A handle set up as newCurlHandle sets one up.
    Lease lease(const std::string& url, std::string& response, long timeout_seconds) const;

private:
    void giveBack(CURL* handle) const;

    const std::size_t max_idle_;
    mutable std::mutex mutex_;
    mutable std::vector<CURL*> idle_;
};

}  // namespace vostra
