// A stand-in for an Ollama server on a loopback port, for provider and
// service tests: it answers "/api/embeddings" as its mode says and
// "/api/tags" with an empty model list, and records every request. One
// connection at a time on a thread of its own; stopped by the destructor.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vostra::test {

class FakeOllamaServer {
public:
    enum class Mode {
        Embeddings,        // {"embedding": [length of the prompt, 1, 2, …]}
        Fail,              // 500 {"error": "model not loaded"}
        Garbage,           // 200 with a body that is not JSON
        MissingEmbedding,  // 200 {"embeddings": []}, the wrong key
    };
    struct Request {
        std::string method;
        std::string path;
        std::string body;
    };

    explicit FakeOllamaServer(int dimension = 8);
    ~FakeOllamaServer();
    FakeOllamaServer(const FakeOllamaServer&) = delete;
    FakeOllamaServer& operator=(const FakeOllamaServer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void setMode(Mode mode) { mode_.store(mode); }
    std::vector<Request> requests() const;

private:
    void serve();
    void answer(int fd);

    int dimension_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<Mode> mode_{Mode::Embeddings};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::thread thread_;
};

}  // namespace vostra::test
