// The pure rules and records every backend shares: path confinement, globs,
// content types, checksums, the JSON forms of results and tenants, and the
// reading of write bodies. Listing order is checked through both backends.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "storage/checksum.h"
#include "storage/content_type.h"
#include "storage/path_rules.h"
#include "storage/storage_requests.h"
#include "storage/storage_result.h"
#include "storage/tenant_config.h"

namespace vostra::data {
namespace {

using nlohmann::json;

TEST(SanitizePath, DropsDotsAndLeadingSlashesWithoutResolving) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b.txt", "a/b.txt"},
        {"a/./b.txt", "a/b.txt"},
        {"a/../b.txt", "a/b.txt"},
        {"a/../a/b.txt", "a/a/b.txt"},
        {"../../etc/passwd", "etc/passwd"},
        {"a//b/", "a/b"},
        {"///", ""},
        {"..", ""},
        {"..a/b..", "..a/b.."},
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(sanitizePath(in), out) << in;
}

TEST(MatchesPattern, IsAWholeNameGlobWithLiteralDots) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"a.json", "*.json", true},     {"a.json.bak", "*.json", false},
        {"aXjson", "a.json", false},    {"ab.c", "a?.c", true},
        {"a.c", "a?.c", false},         {"xaybzb", "*a*b", true},
        {"xaybz", "*a*b", false},       {"", "*", true},
        {"a+(b)[1]", "a+(b)[1]", true},  // no regex syntax leaks through
    };
    for (const auto& [name, pattern, matches] : cases)
        EXPECT_EQ(matchesPattern(name, pattern), matches) << name << " ~ " << pattern;
}

TEST(ContentType, FullTableIsCaseBlindAndBasicTableIsShorter) {
    EXPECT_EQ(detectContentType("notes.MD"), "text/markdown");
    EXPECT_EQ(detectContentType("dir.json/data.yml"), "application/x-yaml");
    EXPECT_EQ(detectContentType("archive.tar.gz"), "application/gzip");
    EXPECT_EQ(detectContentType("Makefile"), "application/octet-stream");
    EXPECT_EQ(detectBasicContentType("photo.JPEG"), "image/jpeg");
    EXPECT_EQ(detectBasicContentType("notes.md"), "application/octet-stream");
    EXPECT_TRUE(isValidContentType("text/plain; charset=utf-8"));
    EXPECT_FALSE(isValidContentType("text/plain\r\nSet-Cookie: a=b"));
}

TEST(Checksum, IsLowerCaseHexSha256) {
    EXPECT_EQ(calculateChecksum(""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(calculateChecksum(std::string("a\0b", 3)),
              "59b271ae1bbcb1d31d41929817f4b16fb439eb4f31520b5ad1d5ce98920a7138");
}

TEST(StorageResultJson, WritesOptionalKeysOnlyWhenTheyCarrySomethingAndTimesInMilliseconds) {
    EXPECT_EQ(StorageResult{}.toJson(), (json{{"success", false}, {"error", ""}}));
    StorageResult full;
    full.entry.emplace().modified_at =
        std::chrono::system_clock::time_point(std::chrono::nanoseconds(2'999'999));
    full.bytes_read = 2;
    full.kind = ErrorKind::Refused;
    const json out = full.toJson();
    EXPECT_EQ(out["entry"]["modified_at"], 2);  // truncated
    EXPECT_EQ(out["bytes_read"], 2);
    EXPECT_EQ(out.size(), 4u) << out.dump();  // no kind, nothing empty
}

TEST(TenantConfigJson, QuotaInGibWinsRoundsDownOnTheWayOutAndSaturates) {
    EXPECT_EQ(TenantConfig::fromJson({{"storage_quota_gb", 2}, {"storage_quota_bytes", 5}})
                  .storage_quota_bytes,
              2147483648);
    EXPECT_EQ(
        TenantConfig::fromJson({{"storage_quota_bytes", 1073741823}}).toJson()["storage_quota_gb"],
        0);
    EXPECT_EQ(TenantConfig::fromJson({{"storage_quota_gb", int64_t{1} << 40}}).storage_quota_bytes,
              INT64_MAX);
    EXPECT_EQ(TenantConfig::fromJson(json::array()).id, "");
    EXPECT_THROW(TenantConfig::fromJson({{"enabled", "yes"}}), json::type_error);
}

// Objects with "data", arrays and text that is not JSON are checked over HTTP.
TEST(WriteBody, TakesAnObjectWithoutDataRawButRefusesMistypedMembers) {
    StorageWriteRequest request;
    EXPECT_EQ(request.readBody(R"({"other":1})"), "");
    EXPECT_EQ(request.data, R"({"other":1})");
    EXPECT_NE(request.readBody(R"({"data":"x","metadata":{"k":1}})"), "");
}

}  // namespace
}  // namespace vostra::data
