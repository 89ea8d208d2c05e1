#include "tests/support/test_servers.h"

#include <unistd.h>

#include <cstdlib>

#include "tests/support/daemon_process.h"

namespace vostra::test {
namespace {

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool runShell(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// Runs `command` as the owner of the server folders: the servers refuse root.
bool runAsOwner(const std::string& command) {
    const std::string user = env("VOSTRA_TEST_SERVER_USER");
    const bool switch_user = geteuid() == 0 && !user.empty() && user != "root";
    return runShell(switch_user ? "runuser -u " + user + " -- " + command : command);
}

TestServer describe(const char* type, const char* port_variable) {
    TestServer server;
    server.type = type;
    server.port = std::atoi(env(port_variable).c_str());
    server.available = server.port > 0;
    return server;
}

}  // namespace

nlohmann::json TestServer::sourceConfig(const std::string& id) const {
    return {{"id", id},
            {"type", type},
            {"host", "127.0.0.1"},
            {"port", port},
            {"database", "vostra_test"},
            {"username", "vostra"},
            {"password", "vostra"}};
}

bool TestServer::answers() const {
    const std::string port_text = std::to_string(port);
    return runShell(type == "postgresql" ? "pg_isready -q -h 127.0.0.1 -p " + port_text
                                         : "mariadb-admin --no-defaults -h 127.0.0.1 -P " +
                                               port_text + " -u root ping >/dev/null 2>&1");
}

TestServer postgresServer() {
    return describe("postgresql", "VOSTRA_TEST_PG_PORT");
}
TestServer mariadbServer() {
    return describe("mysql", "VOSTRA_TEST_MYSQL_PORT");
}

bool stopPostgres() {
    return runAsOwner(env("VOSTRA_TEST_PG_BIN") + "/pg_ctl -D " + env("VOSTRA_TEST_PG_DATA") +
                      " -m fast -w stop >/dev/null");
}

bool startPostgres() {
    const std::string data = env("VOSTRA_TEST_PG_DATA");
    const std::string socket_dir = data.substr(0, data.rfind('/'));
    return runAsOwner(env("VOSTRA_TEST_PG_BIN") + "/pg_ctl -D " + data + " -l " + socket_dir +
                      "/server.log -w -t 60 -o \"-p " + env("VOSTRA_TEST_PG_PORT") + " -k " +
                      socket_dir +
                      " -c listen_addresses=127.0.0.1 -c fsync=off\" start >/dev/null");
}

bool stopMariadb() {
    return runShell("kill $(cat " + env("VOSTRA_TEST_MYSQL_DATA") + "/mysqld.pid) 2>/dev/null") &&
           eventually([] { return !mariadbServer().answers(); }, 30000);
}

bool startMariadb() {
    runAsOwner("sh -c 'mariadbd $(cat " + env("VOSTRA_TEST_MYSQL_DATA") +
               "/args | tr \"\\n\" \" \") >/dev/null 2>&1 &'");
    return eventually([] { return mariadbServer().answers(); }, 30000);
}

}  // namespace vostra::test
