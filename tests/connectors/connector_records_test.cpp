// Connector type names, the factory behind them, and the records around a
// data source: its configuration from JSON, its status, the text clean-up,
// and a result's JSON answer.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <random>

#include "common/sanitize_utf8.h"
#include "connectors/data_connector_factory.h"
#include "connectors/data_source_config.h"
#include "connectors/statement_cache.h"
#include "connectors/data_source_status.h"
#include "connectors/json_text.h"
#include "connectors/query_result.h"

namespace vostra::data {
namespace {

using nlohmann::json;

TEST(ConnectorTypeNames, ExactAliasesAndSilentFallbackToSQLite) {
    const std::pair<const char*, ConnectorType> cases[] = {
        {"postgres", ConnectorType::PostgreSQL}, {"mariadb", ConnectorType::MySQL},
        {"db2_auto", ConnectorType::DB2},        {"db2_cli", ConnectorType::DB2_CLI},
        {"oracle", ConnectorType::SQLite},       {"", ConnectorType::SQLite},
        {"PostgreSQL", ConnectorType::SQLite},
    };
    for (const auto& [name, type] : cases)
        EXPECT_EQ(parseConnectorType(name), type) << name;
    for (int value = 0; value <= 5; ++value) {
        const auto type = static_cast<ConnectorType>(value);
        EXPECT_EQ(parseConnectorType(connectorTypeName(type)), type);
    }
    EXPECT_EQ(connectorTypeName(static_cast<ConnectorType>(6)), "unknown");

    for (const char* rw : {"readwrite", "rw", "write"})
        EXPECT_EQ(parseAccessMode(rw), AccessMode::ReadWrite);
    for (const char* ro : {"readonly", "ro", "", "RW"})
        EXPECT_EQ(parseAccessMode(ro), AccessMode::ReadOnly);
}

TEST(DataConnectorFactory, CreatesEveryTypeByValueAndByNameButOffersOnlyLinkedOnes) {
    const std::pair<const char*, const char*> cases[] = {
        {"sqlite", "SQLite"},       {"postgres", "PostgreSQL"}, {"mariadb", "MySQL"},
        {"db2_odbc", "DB2 (ODBC)"}, {"db2_cli", "DB2 (CLI)"},   {"db2", "DB2 (unavailable)"},
        {"oracle", "SQLite"},  // unknown names still give a working connector
    };
    for (const auto& [type_name, driver] : cases) {
        EXPECT_EQ(DataConnectorFactory::create(type_name)->getName(), driver);
        EXPECT_EQ(DataConnectorFactory::create(parseConnectorType(type_name))->getName(), driver);
    }
    EXPECT_EQ(DataConnectorFactory::create(static_cast<ConnectorType>(6)), nullptr);

    for (int value = 0; value <= 6; ++value)
        EXPECT_EQ(DataConnectorFactory::isAvailable(static_cast<ConnectorType>(value)), value < 3);
    EXPECT_EQ(DataConnectorFactory::getAvailableTypes().size(), 3u);
    EXPECT_EQ(DataConnectorFactory::getAvailableTypeNames(),
              (std::vector<std::string>{"sqlite", "postgresql", "mysql"}));
}

TEST(DataSourceConfigJson, ReadsPresentKeysOnlyAndNonObjectsAsDefaults) {
    const DataSourceConfig c = DataSourceConfig::fromJson({{"id", "wh"},
                                                           {"type", "postgres"},
                                                           {"access_mode", "rw"},
                                                           {"labels", {"prod", "eu"}},
                                                           {"pool_config",
                                                            {{"max_connections", 4},
                                                             {"validate_on_acquire", false},
                                                             {"statement_timeout_ms", 1500}}}});
    EXPECT_EQ(c.type, ConnectorType::PostgreSQL);
    EXPECT_EQ(c.access_mode, AccessMode::ReadWrite);
    EXPECT_EQ(c.labels, (std::vector<std::string>{"prod", "eu"}));
    EXPECT_EQ(c.pool_config.max_connections, 4);
    EXPECT_FALSE(c.pool_config.validate_on_acquire);
    EXPECT_EQ(c.pool_config.min_connections, PoolConfig{}.min_connections);
    EXPECT_EQ(c.pool_config.statement_timeout_ms, 1500);
    EXPECT_EQ(PoolConfig{}.statement_timeout_ms, 0);
    EXPECT_EQ(DataSourceConfig::fromJson(c.toJson()).toJson(), c.toJson());

    const json defaults = DataSourceConfig{}.toJson();
    for (const json& doc : {json::array({1}), json("sqlite"), json(nullptr)})
        EXPECT_EQ(DataSourceConfig::fromJson(doc).toJson(), defaults) << doc.dump();
    for (const json& doc : {json{{"port", "5432"}}, json{{"type", 1}}, json{{"labels", "prod"}},
                            json{{"pool_config", {{"max_connections", "10"}}}}})
        EXPECT_THROW(DataSourceConfig::fromJson(doc), json::type_error) << doc.dump();
}

TEST(ConnectionString, DependsOnTheSourceType) {
    DataSourceConfig c;
    c.path = "/data/local.db";
    c.host = "h";
    c.database = "d";
    c.username = "u";
    c.password = "p";
    EXPECT_EQ(c.getConnectionString(), "/data/local.db");
    c.type = ConnectorType::PostgreSQL;
    EXPECT_EQ(c.getConnectionString(), "host=h port=5432 dbname=d user=u password=p");
    c.type = ConnectorType::DB2_ODBC;
    c.dsn = "PRODDSN";
    EXPECT_EQ(c.getConnectionString(), "DSN=PRODDSN;UID=u;PWD=p");
    for (ConnectorType other : {ConnectorType::MySQL, ConnectorType::DB2_CLI, ConnectorType::DB2}) {
        c.type = other;
        EXPECT_EQ(c.getConnectionString(), "");
    }
}

TEST(DataSourceStatusJson, GivesTheStatusNameAndLastUseInWholeMilliseconds) {
    DataSourceStatusInfo info;
    EXPECT_EQ(info.toJson().at("last_used"), 0);
    info.status = DataSourceStatus::Degraded;
    info.last_used =
        std::chrono::system_clock::time_point(std::chrono::nanoseconds(1700000000123999999));
    EXPECT_EQ(info.toJson().at("status"), "degraded");
    EXPECT_EQ(info.toJson().at("last_used"), 1700000000123);
    EXPECT_EQ(dataSourceStatusName(static_cast<DataSourceStatus>(6)), "unknown");
}

TEST(SanitizeUtf8, ReplacesEachOffendingByteButKeepsWellFormedIllegalSequences) {
    const std::pair<std::string, std::string> cases[] = {
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xE2\x82", "??"},  // cut off at the end
        {"\xFF", "?"},
        {"a\x80z", "a?z"},     // stray continuation
        {"\xE2\x82z", "??z"},  // the lead and its orphan each count
        {"\xF8\x88\x80\x80\x80", "?????"},
        // Overlong, surrogate and beyond-U+10FFFF forms pass on purpose.
        {"\xC0\x80", "\xC0\x80"},
        {"\xED\xA0\x80", "\xED\xA0\x80"},
        {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},
        {"\xF7\xBF\xBF\xBF", "\xF7\xBF\xBF\xBF"},
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(sanitize_utf8(in), out) << in;
}

using Values = std::vector<std::vector<std::string>>;

QueryResult resultOf(const std::vector<std::string>& columns, const Values& values) {
    QueryResult result;
    result.columns = columns;
    result.rows.setColumns(columns);
    for (const auto& row : values)
        result.rows.add([&](int c) { return std::string_view(row[c]); });
    return result;
}

// The answer as the daemon wrote it while each row was a map of strings
// handed to the JSON library.
std::string answerFromMaps(const QueryResult& r, const Values& values) {
    json rows = json::array();
    for (const auto& value : values) {
        std::map<std::string, std::string> row;
        for (std::size_t c = 0; c < r.columns.size(); ++c)
            row[r.columns[c]] = value[c];
        rows.push_back(row);
    }
    return json{{"success", r.success},
                {"error", r.error},
                {"columns", r.columns},
                {"rows", rows},
                {"row_count", values.size()},
                {"affected_rows", r.affected_rows},
                {"last_insert_id", r.last_insert_id},
                {"execution_time_ms", r.execution_time_ms}}
        .dump(-1, ' ', false, json::error_handler_t::replace);
}

TEST(QueryResultJson, IsByteForByteTheAnswerOfRowsAsMaps) {
    const std::string awkward[] = {
        "",
        "plain",
        "quote \" back\\slash / tab\t nl\n cr\r bs\b ff\f nul" + std::string(1, '\0') + "\x1f\x7f",
        "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x9A\x80",
        "cut \xE2\x82",           // a sequence cut off at the end
        "\xE2\x82z \xE2z",        // cut off inside
        "\xFF\xFE \x80\xBF end",  // no lead bytes at all
        "\xC0\x80 \xC1\xBF",      // overlong
        "\xED\xA0\x80",           // a surrogate
        "\xF4\x90\x80\x80 \xF5",  // beyond U+10FFFF
        "\xE0\x9F\xBF \xF0\x8F\xBF\xBF",
    };
    Values values;
    for (const std::string& text : awkward)
        values.push_back({text, "7", text + "!"});
    // Two columns named "dup": the later one's value is the row's.
    QueryResult result = resultOf({"dup", "id", "dup"}, values);
    result.success = true;
    result.affected_rows = -1;
    result.last_insert_id = 9007199254740993;
    result.execution_time_ms = 12;
    EXPECT_EQ(result.toJsonText(), answerFromMaps(result, values));
    EXPECT_EQ(result.toJsonText(),
              result.toJson().dump(-1, ' ', false, json::error_handler_t::replace));
    EXPECT_EQ(result.rows[3]["dup"], awkward[3] + "!");
    EXPECT_EQ(result.rows[3]["missing"], "");
    EXPECT_EQ(result.rows[3].size(), 2u);

    QueryResult failed = resultOf({"n\xC3", "a"}, {});
    failed.error = "near \"SELEC\": syntax error \xFF";
    EXPECT_EQ(failed.toJsonText(), answerFromMaps(failed, {}));
    EXPECT_EQ(resultOf({"b", "a"}, {{"1", "x\"y"}, {"", "\x01"}}).toJsonText(),
              R"({"affected_rows":0,"columns":["b","a"],"error":"","execution_time_ms":0,)"
              R"("last_insert_id":0,"row_count":2,"rows":[{"a":"x\"y","b":"1"},)"
              R"({"a":"\u0001","b":""}],"success":false})");
}

TEST(QueryResultJson, RandomBytesEscapeAsTheLibraryDoesAndToTheSizeForetold) {
    std::mt19937 random(20240611);
    // Mostly the bytes where UTF-8 decisions are made.
    const unsigned char interesting[] = {'a',  '"',  '\\', 0x00, 0x1F, 0x7F, 0x80, 0x8F,
                                         0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC2, 0xDF, 0xE0,
                                         0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF};
    for (int round = 0; round < 5000; ++round) {
        std::string text(random() % 12, '\0');
        for (char& c : text)
            c = static_cast<char>(random() % 4 == 0 ? random() % 256
                                                    : interesting[random() % sizeof interesting]);
        std::string written;
        appendJsonString(written, text);
        ASSERT_EQ(written, json(text).dump(-1, ' ', false, json::error_handler_t::replace))
            << json(text).dump(-1, ' ', true, json::error_handler_t::replace);
        ASSERT_EQ(jsonStringSize(text), written.size());
    }
}

TEST(StatementCache, KeepsTheMostRecentlyUsedAndNeverReusesAName) {
    StatementCache cache(2);
    std::string evicted;
    const std::string a = cache.reserve(evicted);
    EXPECT_TRUE(evicted.empty());
    cache.remember("SELECT a", a);
    const std::string b = cache.reserve(evicted);
    cache.remember("SELECT b", b);
    ASSERT_NE(cache.find("SELECT a"), nullptr);  // a is now the most recent
    const std::string c = cache.reserve(evicted);
    EXPECT_EQ(evicted, b);
    cache.remember("SELECT c", c);
    EXPECT_EQ(cache.find("SELECT b"), nullptr);
    EXPECT_EQ(*cache.find("SELECT a"), a);
    EXPECT_EQ(cache.size(), 2u);
    cache.forget("SELECT a");
    EXPECT_EQ(cache.find("SELECT a"), nullptr);
    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
    // Names stay unique after a clear: the server may still hold old ones.
    const std::string d = cache.reserve(evicted);
    EXPECT_TRUE(evicted.empty());
    EXPECT_NE(d, a);
    EXPECT_NE(d, b);
    EXPECT_NE(d, c);
}

}  // namespace
}  // namespace vostra::data
