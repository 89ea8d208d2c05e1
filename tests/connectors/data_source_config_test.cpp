#include "connectors/data_source_config.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

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

    for (const char* rw : {"readwrite", "rw", "write"}) {
        EXPECT_EQ(parseAccessMode(rw), AccessMode::ReadWrite);
    }
    for (const char* ro : {"readonly", "ro", "", "RW"}) {
        EXPECT_EQ(parseAccessMode(ro), AccessMode::ReadOnly);
    }
}

TEST(DataSourceConfigJson, NonObjectGivesAllDefaults) {
    for (const json& doc : {json::array({1}), json("sqlite"), json(nullptr)}) {
        const DataSourceConfig c = DataSourceConfig::fromJson(doc);
        EXPECT_EQ(c.type, ConnectorType::SQLite);
        EXPECT_EQ(c.access_mode, AccessMode::ReadOnly);
        EXPECT_EQ(c.port, 0);
        EXPECT_EQ(c.pool_config.max_connections, 10);
        EXPECT_EQ(c.pool_config.validation_query, "SELECT 1");
        EXPECT_TRUE(c.enabled);
    }
}

TEST(DataSourceConfigJson, PresentKeysOnlyAndReadsBackFromToJson) {
    const DataSourceConfig c = DataSourceConfig::fromJson(
        {{"id", "wh"},
         {"type", "postgres"},
         {"access_mode", "rw"},
         {"port", 6432},
         {"labels", {"prod", "eu"}},
         {"pool_config", {{"max_connections", 4}, {"validate_on_acquire", false}}}});
    EXPECT_EQ(c.type, ConnectorType::PostgreSQL);
    EXPECT_EQ(c.access_mode, AccessMode::ReadWrite);
    EXPECT_EQ(c.labels, (std::vector<std::string>{"prod", "eu"}));
    EXPECT_EQ(c.pool_config.max_connections, 4);
    EXPECT_FALSE(c.pool_config.validate_on_acquire);
    EXPECT_EQ(c.pool_config.min_connections, 1);  // untouched keys keep defaults
    EXPECT_EQ(c.pool_config.connection_timeout_ms, 5000);

    const json written = c.toJson();
    EXPECT_EQ(written.at("type"), "postgresql");
    EXPECT_EQ(written.at("pool_config").at("max_connections"), 4);
    EXPECT_EQ(written.size(), 20u);
    EXPECT_EQ(DataSourceConfig::fromJson(written).toJson(), written);
}

TEST(DataSourceConfigJson, WronglyTypedKeysThrowTheLibraryTypeError) {
    for (const json& doc : {json{{"port", "5432"}}, json{{"type", 1}}, json{{"labels", "prod"}},
                            json{{"pool_config", {{"max_connections", "10"}}}}}) {
        EXPECT_THROW(DataSourceConfig::fromJson(doc), json::type_error) << doc.dump();
    }
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
    EXPECT_EQ(c.getConnectionString(),
              "Driver={IBM DB2 ODBC DRIVER};Database=d;Hostname=h;Port=50000;Protocol=TCPIP;"
              "Uid=u;Pwd=p");
    c.dsn = "PRODDSN";
    EXPECT_EQ(c.getConnectionString(), "DSN=PRODDSN;UID=u;PWD=p");
    for (ConnectorType other : {ConnectorType::MySQL, ConnectorType::DB2_CLI, ConnectorType::DB2}) {
        c.type = other;
        EXPECT_EQ(c.getConnectionString(), "");
    }
}

}  // namespace
}  // namespace vostra::data
