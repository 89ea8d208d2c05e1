// DataConnector for IBM DB2 servers, mainframe (z/OS) systems included, over
// one of two optional back-ends: ODBC or the DB2 call-level interface (CLI).
// Neither back-end is built in, so every DB2 source fails to connect with
// "No DB2 driver available"; the type names, connection strings and catalog
// SQL are kept so a back-end can be added behind connectThrough() and
// dispatch() alone.
// Owned like any connector; holds no handles in this build.
#pragma once

#include <string>
#include <vector>

#include "connectors/data_connector.h"

namespace vostra::data {

// Whether the ODBC / CLI back-end was compiled in. Both false in this build.
bool isODBCAvailable();
bool isCLIAvailable();

class DB2Connector : public DataConnector {
public:
    enum class Driver : int { None = 0, ODBC = 1, CLI = 2 };
    enum class Preference : int { Automatic = 0, ODBC = 1, CLI = 2, CLIPreferred = 3 };

    // A plain DB2Connector picks its back-end when it connects.
    explicit DB2Connector(Preference preference = Preference::Automatic);

    // DB2_ODBC or DB2_CLI once a back-end was chosen, DB2 before that.
    ConnectorType getType() const override;
    // "DB2 (ODBC)", "DB2 (CLI)", "DB2 (CLI preferred)" or "DB2 (unavailable)".
    std::string getName() const override;

    // Chooses the back-end from the preference and connects through it. In
    // this build always false, with "ODBC support not compiled in", "DB2 CLI
    // support not compiled in" or "No DB2 driver available" as the error.
    bool connect(const DataSourceConfig& config) override;
    void disconnect() override;
    bool isConnected() const override { return connected_; }
    // SELECT 1 FROM SYSIBM.SYSDUMMY1; false when not connected.
    bool validate() override;

    // Fail with the chosen back-end's "not compiled in" text, or with "No DB2
    // driver available" when none was chosen.
    QueryResult query(const std::string& sql, const std::vector<std::string>& params) override;
    QueryResult execute(const std::string& sql, const std::vector<std::string>& params) override;

    // Read SYSCAT through the back-end; empty without one.
    SchemaInfo getSchema() override;
    std::vector<std::string> getTables() override;
    std::vector<ColumnInfo> getColumns(const std::string& table) override;

    // Single quotes doubled; needs no connection.
    std::string escape(const std::string& text) override;

    // Transactions are not supported: always false.
    bool beginTransaction() override { return false; }
    bool commit() override { return false; }
    bool rollback() override { return false; }

    // ODBC connection text: the source's own DB2_ODBC form, plus ";Location="
    // for a mainframe source that names a location.
    static std::string buildODBCConnectionString(const DataSourceConfig& config);
    // CLI connection text, with ";CURRENTSCHEMA=" when a schema is set and
    // ";LOCATION=" for a mainframe source that names a location.
    static std::string buildCLIConnectionString(const DataSourceConfig& config);

    // Catalog SQL; the schema and table names are quoted with escape rules.
    static std::string buildTablesQuery(const std::string& schema);
    static std::string buildColumnsQuery(const std::string& schema, const std::string& table);

private:
    // Runs `sql` on the active back-end. The single place a back-end plugs in.
    QueryResult dispatch(const std::string& sql, const std::vector<std::string>& params);
    bool connectThrough(Driver driver);
    // The schema whose catalog is listed: the configured one, else the user
    // name in capitals, which is the schema DB2 gives unqualified names.
    std::string catalogSchema() const;

    Driver active_driver_ = Driver::None;
    Preference preferred_driver_;
    bool connected_ = false;
};

}  // namespace vostra::data
