// libcurl easy handles set up the way every outgoing call of the daemon wants
// them: the URL, the answer collected into a string, a total time-out, and no
// signals. Owned by the caller; the global libcurl set-up happens once, on the
// first handle, whichever thread asks first.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

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

}  // namespace vostra
