// The real binary over the S3 backend, beyond the behavioural suite: what
// start-up reports, credentials that go bad later, secrets that never show,
// other S3 clients (boto3) and other daemons on the same bucket, and
// listings longer than one page.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"
#include "tests/support/s3_test_server.h"

namespace vostra::test {
namespace {

using nlohmann::json;

const std::string kFiles = "/api/v1/storage/default/";

class S3Storage : public ::testing::Test {
protected:
    void SetUp() override {
        server_ = s3Server();
        if (!server_.available) GTEST_SKIP() << "no S3 test server";
        bucket_ = server_.newBucket(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_NE(bucket_, "");
        dir_ = makeTempDir("vostra-s3");
    }
    void TearDown() override {
        if (!dir_.empty()) removeTree(dir_);
    }

    std::unique_ptr<DaemonProcess> startDaemon(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = server_.daemonArgs(bucket_);
        args.insert(args.end(), extra.begin(), extra.end());
        auto daemon = std::make_unique<DaemonProcess>(args);
        EXPECT_TRUE(daemon->ready()) << daemon->stderrText();
        return daemon;
    }

    // Runs a boto3 script against the test server; its standard output.
    std::string boto3(const std::string& body, int* status = nullptr) {
        const std::string script = dir_ + "/client.py";
        std::ofstream(script) << "import boto3, json, sys\n"
                                 "s3 = boto3.client('s3', endpoint_url='"
                              << server_.endpoint() << "', aws_access_key_id='" << server_.access_key
                              << "', aws_secret_access_key='" << server_.secret_key
                              << "', region_name='us-east-1')\n"
                                 "bucket = '"
                              << bucket_ << "'\n"
                              << body << "\n";
        return runCommand("/usr/bin/python3 " + script + " 2>" + dir_ + "/client.err", status);
    }
    bool hasBoto3() { return runCommand("/usr/bin/python3 -c 'import boto3' 2>&1").empty(); }

    S3TestServer server_;
    std::string bucket_;
    std::string dir_;
};

TEST_F(S3Storage, StartUpReportsAMissingBucketOrAWrongKeyInTheServicesWords) {
    for (const auto& [option, value, code] :
         {std::tuple{"--s3-bucket", "no-such-bucket-here", "NoSuchBucket"},
          std::tuple{"--s3-secret-key", "wrong-secret", "SignatureDoesNotMatch"}}) {
        DaemonProcess daemon(
            [&, option = std::string(option), value = std::string(value)] {
                auto args = server_.daemonArgs(bucket_);
                args.insert(args.end(), {option, value});
                return args;
            }());
        ASSERT_TRUE(daemon.ready());
        EXPECT_EQ(request(daemon.port(), "GET", kFiles + "a.txt").outcome(),
                  "503 Storage service not available");
        EXPECT_NE(daemon.stderrText().find(code), std::string::npos) << daemon.stderrText();
        EXPECT_NE(daemon.stderrText().find("[DataDaemon] Failed to initialize storage service"),
                  std::string::npos);
    }
}

TEST_F(S3Storage, CredentialsThatGoBadLaterFailEveryCallNeverSucceed) {
    auto own = std::make_unique<S3ServerProcess>(dir_, "key-one", "secret-one",
                                                 std::vector<std::string>{"own"});
    ASSERT_TRUE(own->running());
    const int port = own->port();
    DaemonProcess daemon({"--storage-backend", "s3", "--s3-endpoint", own->endpoint(),
                          "--s3-bucket", "own", "--s3-access-key", "key-one", "--s3-secret-key",
                          "secret-one"});
    ASSERT_TRUE(daemon.ready()) << daemon.stderrText();
    ASSERT_EQ(request(daemon.port(), "PUT", kFiles + "a.txt", "one").status, 201);

    // The same server and objects, now with another secret for the key.
    own.reset();
    own = std::make_unique<S3ServerProcess>(dir_, "key-one", "secret-two",
                                            std::vector<std::string>{}, port);
    ASSERT_TRUE(own->running());
    const std::string refused = "403 SignatureDoesNotMatch";
    EXPECT_EQ(request(daemon.port(), "PUT", kFiles + "b.txt", "two").outcome().rfind(
                  "503 S3 PUT failed: " + refused, 0),
              0u);
    EXPECT_EQ(request(daemon.port(), "GET", kFiles + "a.txt").outcome().rfind(
                  "503 S3 GET failed: " + refused, 0),
              0u);
    EXPECT_EQ(request(daemon.port(), "GET", kFiles).outcome().rfind(
                  "503 S3 LIST failed: " + refused, 0),
              0u);
    EXPECT_EQ(request(daemon.port(), "DELETE", kFiles + "a.txt").status, 503);

    own->stop();
    const std::string gone = request(daemon.port(), "PUT", kFiles + "c.txt", "x").outcome();
    EXPECT_EQ(gone.rfind("503 S3 PUT failed: ", 0), 0u) << gone;
}

TEST_F(S3Storage, TheSecretNeverShowsAndMayComeFromTheEnvironment) {
    {
        auto args = server_.daemonArgs(bucket_);
        args.resize(args.size() - 4);  // no key options: the environment has them
        setenv("AWS_ACCESS_KEY_ID", server_.access_key.c_str(), 1);
        setenv("AWS_SECRET_ACCESS_KEY", server_.secret_key.c_str(), 1);
        DaemonProcess daemon(args);
        unsetenv("AWS_ACCESS_KEY_ID");
        unsetenv("AWS_SECRET_ACCESS_KEY");
        ASSERT_TRUE(daemon.ready());
        EXPECT_EQ(request(daemon.port(), "PUT", kFiles + "env.txt", "x").status, 201);
    }

    ConfigFile config;
    config.settings = {{"storage_backend", "s3"},
                       {"s3_endpoint", server_.endpoint()},
                       {"s3_bucket", bucket_},
                       {"s3_access_key", server_.access_key},
                       {"s3_secret_key", server_.secret_key}};
    DaemonProcess daemon(config);
    ASSERT_TRUE(daemon.ready());
    EXPECT_EQ(request(daemon.port(), "GET", kFiles + "env.txt").body, "x");
    std::string seen = daemon.stdoutText() + daemon.stderrText();
    for (const char* path : {"/info", "/metrics", "/api/v1/vector/config"})
        seen += request(daemon.port(), "GET", path).body;
    EXPECT_EQ(seen.find(server_.secret_key), std::string::npos);
    EXPECT_NE(seen.find(bucket_), std::string::npos);  // what may show, does
}

TEST_F(S3Storage, Boto3AndTheDaemonShareObjectsKeysAndMetadata) {
    if (!hasBoto3()) GTEST_SKIP() << "python3-boto3 is not installed";
    auto daemon = startDaemon();
    const std::string odd = "docs/r\xC3\xA9sum\xC3\xA9 (final) #1.txt";
    ASSERT_EQ(request(daemon->port(), "PUT", kFiles + "docs/r%C3%A9sum%C3%A9%20(final)%20%231.txt",
                      R"({"data":"from the daemon","metadata":{"owner":"ada"}})")
                  .status,
              201);
    int status = 0;
    const std::string seen = boto3(
        "o = s3.get_object(Bucket=bucket, Key='default/" + odd +
            "')\n"
            "s3.put_object(Bucket=bucket, Key='default/docs/from boto+1.txt', Body=b'from boto',"
            " ContentType='text/x-boto', Metadata={'origin': 'boto3'})\n"
            "keys = [c['Key'] for c in s3.list_objects_v2(Bucket=bucket)['Contents']]\n"
            "print(json.dumps({'body': o['Body'].read().decode(), 'meta': o['Metadata'],"
            " 'type': o['ContentType'], 'keys': keys}))",
        &status);
    ASSERT_EQ(status, 0) << seen;
    const json got = json::parse(seen);
    EXPECT_EQ(got["body"], "from the daemon");
    EXPECT_EQ(got["meta"]["owner"], "ada");
    EXPECT_EQ(got["type"], "text/plain");
    // The tenant's folder is the key "default/"; no marker ends in "//".
    const auto keys = got["keys"].get<std::vector<std::string>>();
    EXPECT_NE(std::find(keys.begin(), keys.end(), "default/"), keys.end());
    for (const std::string& key : keys)
        EXPECT_EQ(key.find("//"), std::string::npos) << key;

    const HttpResponse read = request(daemon->port(), "GET", kFiles + "docs/from%20boto+1.txt");
    EXPECT_EQ(read.body, "from boto");
    EXPECT_NE(read.head.find("Content-Type: text/x-boto"), std::string::npos) << read.head;
    std::vector<std::string> listed;
    const json listing = request(daemon->port(), "GET", kFiles + "docs/").json();
    for (const json& entry : listing["entries"])
        listed.push_back(entry["name"]);
    EXPECT_EQ(listed, (std::vector<std::string>{"from boto+1.txt", "r\xC3\xA9sum\xC3\xA9 (final) #1.txt"}));
}

TEST_F(S3Storage, TwoDaemonsOnOneBucketSeeEachOthersFiles) {
    auto one = startDaemon();
    auto two = startDaemon();
    ASSERT_EQ(request(one->port(), "PUT", kFiles + "shared/a.txt", "12345").status, 201);
    EXPECT_EQ(request(two->port(), "GET", kFiles + "shared/a.txt").body, "12345");
    EXPECT_EQ(request(two->port(), "GET", "/api/v1/tenants/default/usage").json()["storage_used_bytes"],
              5);
    ASSERT_EQ(request(two->port(), "DELETE", kFiles + "shared").status, 200);
    EXPECT_EQ(request(one->port(), "GET", kFiles + "shared/a.txt").status, 404);
}

TEST_F(S3Storage, UsageAndRemovalSeeBeyondTheFirstPageOfAListing) {
    if (!hasBoto3()) GTEST_SKIP() << "python3-boto3 is not installed";
    int status = 0;
    boto3("for i in range(1001):\n"
          "    s3.put_object(Bucket=bucket, Key='default/many/f%04d' % i, Body=b'xy')",
          &status);
    ASSERT_EQ(status, 0);
    auto daemon = startDaemon();
    const json usage = request(daemon->port(), "GET", "/api/v1/tenants/default/usage").json();
    EXPECT_EQ(usage["file_count"], 1001);
    EXPECT_EQ(usage["storage_used_bytes"], 2002);
    EXPECT_EQ(request(daemon->port(), "GET", kFiles + "many/").json()["entries"].size(), 1000u);

    ASSERT_EQ(request(daemon->port(), "DELETE", kFiles + "many").status, 200);
    EXPECT_EQ(boto3("print(s3.list_objects_v2(Bucket=bucket, Prefix='default/many/')['KeyCount'])"),
              "0\n");
    EXPECT_EQ(request(daemon->port(), "GET", "/api/v1/tenants/default/usage").json()["file_count"],
              0);
}

}  // namespace
}  // namespace vostra::test
