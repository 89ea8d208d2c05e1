#include "tests/support/s3_test_server.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "common/curl_handle.h"
#include "storage/checksum.h"
#include "storage/s3_signer.h"
#include "tests/support/daemon_process.h"

namespace vostra::test {

S3TestServer s3Server() {
    S3TestServer server;
    const char* port = std::getenv("VOSTRA_TEST_S3_PORT");
    const char* access = std::getenv("VOSTRA_TEST_S3_ACCESS_KEY");
    const char* secret = std::getenv("VOSTRA_TEST_S3_SECRET_KEY");
    if (!port || !access || !secret) return server;
    server.port = std::atoi(port);
    server.access_key = access;
    server.secret_key = secret;
    server.available = server.port > 0;
    return server;
}

std::string S3TestServer::newBucket(const std::string& tag) const {
    static std::atomic<int> counter{0};
    std::string name = "t-" + std::to_string(getpid()) + "-" + std::to_string(++counter) + "-";
    for (char c : tag)
        if (name.size() < 60) name += std::isalnum(static_cast<unsigned char>(c)) ? std::tolower(c) : '-';

    data::s3::RequestToSign request;
    request.method = "PUT";
    request.path = data::s3::objectPath(name, "");
    request.payload_hash = data::calculateChecksum("");
    request.timestamp = data::s3::currentTimestamp();
    const std::string host = "127.0.0.1:" + std::to_string(port);
    request.headers = {{"host", host},
                       {"x-amz-content-sha256", request.payload_hash},
                       {"x-amz-date", request.timestamp}};
    const auto signature = data::s3::sign(request, access_key, secret_key, "us-east-1");

    std::string answer;
    CurlHandle curl = newCurlHandle(endpoint() + request.path, answer, 10);
    if (!curl) return {};
    curl_slist* list = nullptr;
    for (const std::string& line :
         {"Authorization: " + signature.authorization, "x-amz-date: " + request.timestamp,
          "x-amz-content-sha256: " + request.payload_hash})
        list = curl_slist_append(list, line.c_str());
    CurlHeaders headers(list);
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, "PUT");
    long status = 0;
    if (curl_easy_perform(curl.get()) != CURLE_OK) return {};
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    return status == 200 ? name : std::string();
}

std::vector<std::string> S3TestServer::daemonArgs(const std::string& bucket) const {
    return {"--storage-backend", "s3",          "--s3-endpoint",  endpoint(),
            "--s3-bucket",       bucket,        "--s3-access-key", access_key,
            "--s3-secret-key",   secret_key};
}

S3ServerProcess::S3ServerProcess(const std::string& dir, const std::string& access_key,
                                 const std::string& secret_key,
                                 const std::vector<std::string>& buckets, int port) {
    std::string command = "S3_PORT=" + std::to_string(port) +
                          " node --openssl-legacy-provider " VOSTRA_SOURCE_DIR
                          "/tests/tools/s3_server.js '" +
                          dir + "/objects' '" + access_key + "' '" + secret_key + "'";
    for (const std::string& bucket : buckets)
        command += " " + bucket;
    command += " >" + dir + "/s3.out 2>" + dir + "/s3.err & echo $!";
    pid_ = std::atoi(runCommand(command).c_str());
    if (pid_ <= 0) return;
    eventually(
        [&] {
            std::ifstream out(dir + "/s3.out");
            std::string word;
            out >> word >> port_;
            return word == "port" && port_ > 0;
        },
        20000);
}

void S3ServerProcess::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    // Not our child (the shell started it): wait until it is gone.
    eventually([&] { return ::kill(pid_, 0) != 0; }, 10000);
    pid_ = 0;
    port_ = 0;
}

}  // namespace vostra::test
