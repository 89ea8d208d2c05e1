#include "connectors/data_connector_factory.h"

#include <gtest/gtest.h>

namespace vostra::data {
namespace {

TEST(DataConnectorFactory, CreatesEveryTypeByValueAndByName) {
    const std::pair<const char*, const char*> cases[] = {
        {"sqlite", "SQLite"},       {"postgres", "PostgreSQL"}, {"mariadb", "MySQL"},
        {"db2_odbc", "DB2 (ODBC)"}, {"db2_cli", "DB2 (CLI)"},   {"db2", "DB2 (unavailable)"},
        {"oracle", "SQLite"},  // unknown names still give a working connector
    };
    for (const auto& [type_name, driver] : cases) {
        auto connector = DataConnectorFactory::create(type_name);
        ASSERT_NE(connector, nullptr) << type_name;
        EXPECT_EQ(connector->getName(), driver);
        EXPECT_EQ(DataConnectorFactory::create(parseConnectorType(type_name))->getName(), driver);
    }
    EXPECT_EQ(DataConnectorFactory::create(static_cast<ConnectorType>(6)), nullptr);
}

TEST(DataConnectorFactory, OnlyLinkedDriversAreAvailable) {
    for (int value = 0; value <= 6; ++value) {
        EXPECT_EQ(DataConnectorFactory::isAvailable(static_cast<ConnectorType>(value)), value < 3);
    }
    EXPECT_EQ(DataConnectorFactory::getAvailableTypes().size(), 3u);
    EXPECT_EQ(DataConnectorFactory::getAvailableTypeNames(),
              (std::vector<std::string>{"sqlite", "postgresql", "mysql"}));
}

}  // namespace
}  // namespace vostra::data
