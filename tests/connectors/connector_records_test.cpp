// Connector type names, the factory behind them, and the records around a
// data source: its configuration from JSON, its status, and the text clean-up.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "connectors/data_connector_factory.h"
#include "connectors/data_source_config.h"
#include "connectors/data_source_status.h"
#include "common/sanitize_utf8.h"

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
    const DataSourceConfig c = DataSourceConfig::fromJson(
        {{"id", "wh"},
         {"type", "postgres"},
         {"access_mode", "rw"},
         {"labels", {"prod", "eu"}},
         {"pool_config", {{"max_connections", 4}, {"validate_on_acquire", false}}}});
    EXPECT_EQ(c.type, ConnectorType::PostgreSQL);
    EXPECT_EQ(c.access_mode, AccessMode::ReadWrite);
    EXPECT_EQ(c.labels, (std::vector<std::string>{"prod", "eu"}));
    EXPECT_EQ(c.pool_config.max_connections, 4);
    EXPECT_FALSE(c.pool_config.validate_on_acquire);
    EXPECT_EQ(c.pool_config.min_connections, PoolConfig{}.min_connections);
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

}  // namespace
}  // namespace vostra::data
