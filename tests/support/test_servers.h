// The private PostgreSQL and MariaDB servers that scripts/test.sh starts for
// the test run, described by VOSTRA_TEST_* environment variables. Tests that
// need a server skip themselves when it was not started. The restart helpers
// disturb every test using that server: only tests registered RUN_SERIAL may
// call them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace vostra::test {

struct TestServer {
    bool available = false;
    int port = 0;
    std::string type;  // "postgresql" or "mysql"

    // A data-source configuration for the test database ("vostra_test", user
    // and password "vostra") with the given id.
    nlohmann::json sourceConfig(const std::string& id) const;
    // Whether the server accepts connections right now.
    bool answers() const;
};

TestServer postgresServer();
TestServer mariadbServer();

// Stop and start the server process; true when the command succeeded and,
// for a start, the server accepts connections again.
bool stopPostgres();
bool startPostgres();
bool stopMariadb();
bool startMariadb();

}  // namespace vostra::test
