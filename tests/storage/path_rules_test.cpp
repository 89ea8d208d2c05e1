// The pure rules every backend shares: path confinement, globs, listing
// order, content types and checksums.
#include "storage/path_rules.h"

#include <gtest/gtest.h>

#include "storage/checksum.h"
#include "storage/content_type.h"

namespace vostra::data {
namespace {

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
    EXPECT_TRUE(matchesPattern("a.json", "*.json"));
    EXPECT_FALSE(matchesPattern("a.json.bak", "*.json"));
    EXPECT_FALSE(matchesPattern("aXjson", "a.json"));
    EXPECT_TRUE(matchesPattern("ab.c", "a?.c"));
    EXPECT_FALSE(matchesPattern("a.c", "a?.c"));
    EXPECT_TRUE(matchesPattern("a+(b)[1]", "a+(b)[1]"));  // no regex syntax leaks through
    EXPECT_TRUE(matchesPattern("xaybzb", "*a*b"));
    EXPECT_FALSE(matchesPattern("xaybz", "*a*b"));
    EXPECT_TRUE(matchesPattern("", "*"));
}

FileEntry entry(std::string name, bool dir) {
    FileEntry e;
    e.path = e.name = std::move(name);
    e.is_directory = dir;
    return e;
}

TEST(OrderAndSlice, PutsDirectoriesFirstThenByteOrderThenSlices) {
    std::vector<FileEntry> all = {entry("b", false), entry("Z", true), entry("a", false),
                                  entry("B", false), entry("m", true)};
    std::vector<std::string> names;
    for (const auto& e : orderAndSlice(all, 1000, 0))
        names.push_back(e.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Z", "m", "B", "a", "b"}));
    EXPECT_EQ(orderAndSlice(all, 2, 1)[0].name, "m");
    EXPECT_EQ(orderAndSlice(all, 2, 1).size(), 2u);
    EXPECT_TRUE(orderAndSlice(all, 10, 99).empty());
    EXPECT_TRUE(orderAndSlice(all, -1, -5).empty());
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

}  // namespace
}  // namespace vostra::data
