#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "connectors/data_source_status.h"
#include "connectors/query_result.h"
#include "connectors/sanitize_utf8.h"

namespace vostra::data {
namespace {

TEST(RecordJson, EmptyQueryResultStillHasEveryKey) {
    const nlohmann::json j = QueryResult{}.toJson();
    EXPECT_EQ(j.size(), 8u);
    EXPECT_EQ(j.at("rows"), nlohmann::json::array());
    EXPECT_EQ(j.at("row_count"), 0);
    EXPECT_EQ(j.at("success"), false);
}

TEST(RecordJson, StatusNameAndLastUsedInWholeMilliseconds) {
    DataSourceStatusInfo info;
    EXPECT_EQ(info.toJson().at("last_used"), 0);
    info.status = DataSourceStatus::Degraded;
    info.last_used =
        std::chrono::system_clock::time_point(std::chrono::nanoseconds(1700000000123999999));
    const nlohmann::json j = info.toJson();
    EXPECT_EQ(j.size(), 11u);
    EXPECT_EQ(j.at("status"), "degraded");
    EXPECT_EQ(j.at("last_used"), 1700000000123);
    EXPECT_EQ(dataSourceStatusName(static_cast<DataSourceStatus>(6)), "unknown");
}

TEST(SanitizeUtf8, EachOffendingByteBecomesOneQuestionMark) {
    const std::string good = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80";
    EXPECT_EQ(sanitize_utf8(good), good);
    EXPECT_EQ(sanitize_utf8("\xE2\x82"), "??");  // cut off at the end
    EXPECT_EQ(sanitize_utf8("\xFF"), "?");
    EXPECT_EQ(sanitize_utf8("a\x80"
                            "b"),
              "a?b");  // stray continuation
    EXPECT_EQ(sanitize_utf8("\xE2\x82"
                            "A"),
              "??A");  // the lead and its orphan each count
    EXPECT_EQ(sanitize_utf8("\xF8\x88\x80\x80\x80"), "?????");
}

TEST(SanitizeUtf8, StructurallyValidButIllegalSequencesAreKept) {
    // Overlong, surrogate and beyond-U+10FFFF forms pass on purpose.
    for (const char* text : {"\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF7\xBF\xBF\xBF"}) {
        EXPECT_EQ(sanitize_utf8(text), text);
    }
}

}  // namespace
}  // namespace vostra::data
