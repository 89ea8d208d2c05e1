// A stand-in forge for the forge client tests: an HTTP or HTTPS server on a
// free loopback port that records each request (method, target, headers,
// body) and answers through a handler the test sets. Serves one connection
// at a time, which is all a client making one request at a time needs.
// Thread-safe; stops in its destructor.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "git/forge_records.h"

namespace vostra::test {

// The token every test forge is configured with; no error text may hold it.
inline constexpr const char* kTestToken = "tok-3f9a-do-not-leak";

// A forge of `type` at `url` with id and alias "t", kTestToken and a short
// request time-out.
git::ForgeConfig testForgeConfig(git::ForgeType type, const std::string& url);

struct ForgeRequest {
    std::string method;
    std::string target;  // path and query, as sent
    std::map<std::string, std::string> headers;  // names lower-cased
    std::string body;

    // The header's value; empty when it was not sent.
    std::string header(const std::string& lower_case_name) const;
};

struct ForgeReply {
    int status = 200;
    std::string body = "{}";
    std::vector<std::pair<std::string, std::string>> headers;  // extra, e.g. Location
};

class FakeForge {
public:
    using Handler = std::function<ForgeReply(const ForgeRequest&)>;

    // Plain HTTP; with a certificate and key (PEM files), HTTPS.
    FakeForge();
    FakeForge(const std::string& cert_path, const std::string& key_path);
    ~FakeForge();
    FakeForge(const FakeForge&) = delete;
    FakeForge& operator=(const FakeForge&) = delete;

    // "http://127.0.0.1:<port>" (or https).
    std::string url() const;
    void setHandler(Handler handler);
    // Every request answered with this status and body.
    void replyWith(int status, std::string body);
    std::vector<ForgeRequest> requests() const;
    // The latest request; an empty one when none arrived.
    ForgeRequest last() const;

private:
    void serveLoop();
    void serve(int fd);

    SSL_CTX* tls_ = nullptr;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> running_{true};
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<ForgeRequest> requests_;
    std::thread server_;
};

// A self-signed certificate for 127.0.0.1, valid for a day, made with the
// openssl command in `folder`; the certificate and key paths, or nullopt.
std::optional<std::pair<std::string, std::string>> makeSelfSignedCertificate(
    const std::string& folder);

// A fresh folder under the temporary folder, removed on destruction.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace vostra::test
