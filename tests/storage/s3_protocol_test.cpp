// The pieces of the S3 backend that need no server: request signing
// (compared byte for byte with botocore's signer on fixed inputs), the
// listing and error readers, and the usage cache.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "storage/checksum.h"
#include "storage/object_usage.h"
#include "storage/s3_listing.h"
#include "storage/s3_signer.h"
#include "tests/support/daemon_process.h"

namespace vostra::data::s3 {
namespace {

using nlohmann::json;

struct Case {
    std::string name;
    std::string method;
    std::string key;
    Pairs query;
    Pairs headers;  // beyond host, x-amz-date and x-amz-content-sha256
    std::string payload;
};

constexpr const char* kTimestamp = "20261123T081502Z";
constexpr const char* kAccess = "AKIDEXAMPLE";
constexpr const char* kSecret = "wJalrXUtnFEMI/K7MDENG+bPxRfiCYEXAMPLEKEY";
constexpr const char* kRegion = "eu-central-1";

RequestToSign toSign(const Case& c) {
    RequestToSign request;
    request.method = c.method;
    request.path = objectPath("bucket", c.key);
    request.query = c.query;
    request.payload_hash = calculateChecksum(c.payload);
    request.timestamp = kTimestamp;
    request.headers = {{"host", "127.0.0.1:9000"},
                       {"x-amz-content-sha256", request.payload_hash},
                       {"x-amz-date", kTimestamp}};
    request.headers.insert(request.headers.end(), c.headers.begin(), c.headers.end());
    return request;
}

// botocore's verdict on each case, or nothing when it is not installed.
std::optional<json> referenceSignatures(const std::vector<Case>& cases) {
    json input = json::array();
    for (const Case& c : cases) {
        json headers = json::object();
        for (const auto& [name, value] : toSign(c).headers)
            if (name != "host") headers[name] = value;
        json query = json::object();
        for (const auto& [name, value] : c.query)
            query[name] = value;
        input.push_back({{"method", c.method}, {"endpoint", "http://127.0.0.1:9000"},
                         {"bucket", "bucket"}, {"key", c.key}, {"query", query},
                         {"headers", headers}, {"timestamp", kTimestamp},
                         {"access_key", kAccess}, {"secret_key", kSecret},
                         {"region", kRegion}});
    }
    const std::string dir = test::makeTempDir("vostra-sigv4");
    std::ofstream(dir + "/in.json") << input.dump();
    const std::string command = "/usr/bin/python3 " VOSTRA_SOURCE_DIR
                                "/tests/storage/sigv4_reference.py < " +
                                dir + "/in.json 2>" + dir + "/err.txt";
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        while (std::size_t n = fread(buffer, 1, sizeof buffer, pipe))
            output.append(buffer, n);
        if (pclose(pipe) != 0) output.clear();
    }
    test::removeTree(dir);
    if (output.empty()) return std::nullopt;
    return json::parse(output);
}

TEST(S3Signer, AgreesWithBotocoreByteForByte) {
    const std::vector<Case> cases = {
        {"plain put", "PUT", "acme/docs/a.txt", {}, {{"Content-Type", "text/plain"}}, "hello"},
        {"space", "GET", "acme/my file.txt", {}, {}, ""},
        {"non-ascii", "GET", "acme/d\xC3\xA9j\xC3\xA0/\xE6\x96\x87.txt", {}, {}, ""},
        {"plus and reserved", "HEAD", "acme/a+b=c&d;e:f@g!h'(i)*~.txt", {}, {}, ""},
        {"metadata",
         "PUT",
         "acme/m.json",
         {},
         {{"Content-Type", "application/json"},
          {"x-amz-meta-Owner", "  Ada   Lovelace  "},
          {"x-amz-meta-b", "2"}},
         "{}"},
        {"copy source",
         "PUT",
         "acme/to/b c.txt",
         {},
         {{"x-amz-copy-source", "/bucket/" + uriEncode("acme/from/a b+\xC3\xA9.txt", true)}},
         ""},
        {"range", "GET", "acme/big.bin", {}, {{"Range", "bytes=10-19"}}, ""},
        {"list",
         "GET",
         "",
         {{"list-type", "2"},
          {"prefix", "acme/dir with space/\xC3\xA9/"},
          {"max-keys", "1000"},
          {"delimiter", "/"},
          {"continuation-token", "1/a+b=="}},
         {},
         ""},
        {"empty query", "DELETE", "acme/x", {}, {}, ""},
    };
    const auto reference = referenceSignatures(cases);
    if (!reference) GTEST_SKIP() << "python3-botocore is not installed";
    ASSERT_EQ(reference->size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Signature mine = sign(toSign(cases[i]), kAccess, kSecret, kRegion);
        const json& theirs = (*reference)[i];
        EXPECT_EQ(mine.canonical_request, theirs["canonical_request"]) << cases[i].name;
        EXPECT_EQ(mine.string_to_sign, theirs["string_to_sign"]) << cases[i].name;
        EXPECT_EQ(mine.signature, theirs["signature"]) << cases[i].name;
    }
    const Signature plain = sign(toSign(cases[0]), kAccess, kSecret, kRegion);
    EXPECT_EQ(plain.authorization,
              "AWS4-HMAC-SHA256 Credential=AKIDEXAMPLE/20261123/eu-central-1/s3/aws4_request, "
              "SignedHeaders=content-type;host;x-amz-content-sha256;x-amz-date, Signature=" +
                  plain.signature);
}

TEST(S3Signer, EncodesEveryByteButTheUnreserved) {
    EXPECT_EQ(uriEncode("a b+c/d~e.f_g-h", true), "a%20b%2Bc/d~e.f_g-h");
    EXPECT_EQ(uriEncode("a/b", false), "a%2Fb");
    EXPECT_EQ(uriEncode("\xC3\xA9", true), "%C3%A9");
    EXPECT_EQ(objectPath("b", ""), "/b");
    EXPECT_EQ(canonicalQuery({{"b", "2"}, {"a", "x y"}, {"a", "1"}}), "a=1&a=x%20y&b=2");
}

TEST(S3Listing, ReadsPagesWithEscapedKeysAndTokens) {
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<ListBucketResult><Name>b</Name><Prefix>t/</Prefix><IsTruncated>true</IsTruncated>
<Contents><Key>t/a&amp;b &lt;1&gt;.txt</Key><LastModified>2026-11-23T08:15:02.000Z</LastModified><Size>12</Size></Contents>
<Contents><Key>t/&#233;&#x4E2D;</Key><Size>-5</Size></Contents>
<CommonPrefixes><Prefix>t/sub/</Prefix></CommonPrefixes>
<NextContinuationToken>tok&amp;en</NextContinuationToken></ListBucketResult>)";
    ListPage page;
    ASSERT_TRUE(parseListPage(xml, page));
    ASSERT_EQ(page.objects.size(), 2u);
    EXPECT_EQ(page.objects[0].key, "t/a&b <1>.txt");
    EXPECT_EQ(page.objects[0].size, 12);
    EXPECT_EQ(page.objects[0].last_modified, "2026-11-23T08:15:02.000Z");
    EXPECT_EQ(page.objects[1].key, "t/\xC3\xA9\xE4\xB8\xAD");
    EXPECT_EQ(page.objects[1].size, 0);
    EXPECT_EQ(page.common_prefixes, std::vector<std::string>{"t/sub/"});
    EXPECT_TRUE(page.truncated);
    EXPECT_EQ(page.next_token, "tok&en");

    ListPage broken;
    EXPECT_FALSE(parseListPage("<ListBucketResult><IsTruncated>true</IsTruncated>", broken));
    EXPECT_FALSE(parseListPage("<Error><Code>AccessDenied</Code></Error>", broken));
    EXPECT_EQ(xmlUnescape("a & b &bogus; &#0; &#xD800; &amp"), "a & b &bogus; &#0; &#xD800; &amp");
}

TEST(S3Listing, ErrorDetailIsCodeAndMessage) {
    EXPECT_EQ(errorDetail("<Error><Code>NoSuchBucket</Code><Message>The specified bucket does "
                          "not exist</Message></Error>"),
              "NoSuchBucket The specified bucket does not exist");
    EXPECT_EQ(errorDetail(""), "");
    EXPECT_EQ(errorDetail("<Error><Code>SlowDown</Code></Error>"), "SlowDown");
}

}  // namespace
}  // namespace vostra::data::s3

namespace vostra::data {
namespace {

// A lister over a map the test changes, counting how often it is asked.
struct FakeBucket {
    ObjectUsageCache::Objects objects;
    int listings = 0;
    std::function<void()> during_listing;
    ObjectUsageCache::Lister lister() {
        return [this](const std::string&, ObjectUsageCache::Objects& out) {
            ++listings;
            if (during_listing) during_listing();
            out = objects;
            return true;
        };
    }
};

TEST(ObjectUsage, CountsOwnChangesAndListsOnlyWhenStale) {
    FakeBucket bucket;
    bucket.objects = {{"", 0}, {"a.txt", 10}, {"swarms/", 0}, {"swarms/s/g.json", 5}};
    ObjectUsageCache cache(bucket.lister(), std::chrono::hours(1));
    TenantUsage usage = cache.usage("t");
    EXPECT_EQ(usage.storage_used_bytes, 15);
    EXPECT_EQ(usage.file_count, 2);
    EXPECT_EQ(usage.directory_count, 1);
    EXPECT_EQ(usage.swarm_storage_bytes, 5);

    cache.recordStored("t", "a.txt", 4);  // an overwrite replaces, never adds
    cache.recordStored("t", "uploads/u", 7);
    cache.recordRemoved("t", "swarms/s/g.json");
    cache.recordRemoved("t", "never-there");
    usage = cache.usage("t");
    EXPECT_EQ(usage.storage_used_bytes, 11);
    EXPECT_EQ(usage.file_count, 2);
    EXPECT_EQ(usage.upload_storage_bytes, 7);
    EXPECT_EQ(usage.swarm_storage_bytes, 0);
    EXPECT_EQ(bucket.listings, 1);

    // Another daemon's writes show once the figure is old.
    ObjectUsageCache stale(bucket.lister(), std::chrono::seconds(0));
    (void)stale.usage("t");
    bucket.objects["b.txt"] = 100;
    EXPECT_EQ(stale.usage("t").storage_used_bytes, 115);
}

TEST(ObjectUsage, ChangesDuringAListingAreKeptAndForgettingVoidsIt) {
    FakeBucket bucket;
    bucket.objects = {{"old.txt", 10}};
    ObjectUsageCache cache(bucket.lister(), std::chrono::seconds(0));
    (void)cache.usage("t");
    // The listing was taken before these two changes reached the store.
    bucket.during_listing = [&] {
        cache.recordStored("t", "new.txt", 3);
        cache.recordRemoved("t", "old.txt");
    };
    EXPECT_EQ(cache.usage("t").storage_used_bytes, 3);

    bucket.during_listing = [&] { cache.forget("t"); };
    EXPECT_EQ(cache.usage("t").storage_used_bytes, 0);
    bucket.during_listing = nullptr;
    bucket.objects = {{"after.txt", 8}};
    EXPECT_EQ(cache.usage("t").storage_used_bytes, 8);
}

}  // namespace
}  // namespace vostra::data
