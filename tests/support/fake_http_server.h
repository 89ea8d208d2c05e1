// A small HTTP server for tests that stands in for an internet service (the
// cluster controller, an embedding server): it records every request and
// answers through a handler the test sets and may change at any time. One
// request per connection. Thread-safe; stops in its destructor.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vostra::test {

struct RecordedRequest {
    std::string method;
    std::string path;
    std::string body;
    std::string headers;  // the header lines as received, after the request line
};

struct FakeResponse {
    int status = 200;
    std::string body = "{}";
    std::string content_type = "application/json";
    int delay_ms = 0;  // wait this long before answering
};

class FakeHttpServer {
public:
    using Handler = std::function<FakeResponse(const RecordedRequest&)>;

    FakeHttpServer();  // listens on a free loopback port; answers 200 {} until told otherwise
    ~FakeHttpServer();
    FakeHttpServer(const FakeHttpServer&) = delete;
    FakeHttpServer& operator=(const FakeHttpServer&) = delete;

    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void setHandler(Handler handler);
    // Requests so far whose path starts with `prefix` ("" for all).
    std::vector<RecordedRequest> requestsTo(const std::string& prefix) const;
    // Waits until `count` requests to `prefix` arrived; false after `timeout_ms`.
    bool waitFor(const std::string& prefix, std::size_t count, int timeout_ms = 10000) const;

private:
    void acceptLoop();
    void serve(int fd);

    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> running_{true};
    std::thread acceptor_;
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<RecordedRequest> requests_;
    std::vector<std::thread> clients_;
};

}  // namespace vostra::test
