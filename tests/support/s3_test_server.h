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

}  // namespace vostra::test
