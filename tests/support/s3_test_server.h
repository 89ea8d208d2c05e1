// The private S3-compatible server that scripts/test.sh starts for the test
// run (tests/tools/s3_server.js), described by VOSTRA_TEST_S3_* environment
// variables. Tests that need it skip themselves when it was not started;
// each test makes buckets of its own, so tests never share objects.
#pragma once

#include <string>
#include <vector>

namespace vostra::test {

struct S3TestServer {
    bool available = false;
    int port = 0;
    std::string access_key;
    std::string secret_key;

    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port); }
    // Creates a new empty bucket with a name no other test uses (built from
    // `tag`); empty when the server refused.
    std::string newBucket(const std::string& tag) const;
    // The daemon options that put its storage in `bucket` of this server.
    std::vector<std::string> daemonArgs(const std::string& bucket) const;
};

S3TestServer s3Server();

// An S3 server of the test's own (the same launcher the test run uses), for
// tests that stop it or change its key pair. Stopped by the destructor.
class S3ServerProcess {
public:
    // Starts it on `port` (0: a free one) with the key pair and buckets
    // given, its objects under `dir`; check running().
    S3ServerProcess(const std::string& dir, const std::string& access_key,
                    const std::string& secret_key, const std::vector<std::string>& buckets,
                    int port = 0);
    ~S3ServerProcess() { stop(); }
    S3ServerProcess(const S3ServerProcess&) = delete;
    S3ServerProcess& operator=(const S3ServerProcess&) = delete;

    bool running() const { return port_ > 0; }
    int port() const { return port_; }
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void stop();

private:
    int pid_ = 0;
    int port_ = 0;
};

}  // namespace vostra::test
