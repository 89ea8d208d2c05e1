#include "tests/support/test_servers.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace vostra::test {
namespace {

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// Prefixes a command so it runs as the owner of the server folders.
std::string asOwner(const std::string& command) {
    const std::string user = env("VOSTRA_TEST_SERVER_USER");
    if (geteuid() == 0 && !user.empty() && user != "root")
        return "runuser -u " + user + " -- " + command;
    return command;
}

bool waitUntil(const std::string& probe) {
    for (int i = 0; i < 120; ++i) {
        if (runShell(probe + " >/dev/null 2>&1")) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    return false;
}

std::string mariadbPing() {
    return "mariadb-admin --no-defaults -h 127.0.0.1 -P " + env("VOSTRA_TEST_MYSQL_PORT") +
           " -u root ping";
}

}  // namespace

nlohmann::json TestServer::sourceConfig(const std::string& id) const {
    return {{"id", id},         {"type", type},         {"host", "127.0.0.1"},
            {"port", port},     {"database", "vostra_test"}, {"username", "vostra"},
            {"password", "vostra"}};
}

bool runShell(const std::string& command) { return std::system(command.c_str()) == 0; }

TestServer postgresServer() {
    TestServer server;
    server.type = "postgresql";
    server.port = std::atoi(env("VOSTRA_TEST_PG_PORT").c_str());
    server.available = server.port > 0;
    return server;
}

TestServer mariadbServer() {
    TestServer server;
    server.type = "mysql";
    server.port = std::atoi(env("VOSTRA_TEST_MYSQL_PORT").c_str());
    server.available = server.port > 0;
    return server;
}

bool stopPostgres() {
    return runShell(asOwner(env("VOSTRA_TEST_PG_BIN") + "/pg_ctl -D " + env("VOSTRA_TEST_PG_DATA") +
                            " -m fast -w stop >/dev/null"));
}

bool startPostgres() {
    const std::string data = env("VOSTRA_TEST_PG_DATA");
    const std::string socket_dir = data.substr(0, data.rfind('/'));
    return runShell(asOwner(env("VOSTRA_TEST_PG_BIN") + "/pg_ctl -D " + data + " -l " + socket_dir +
                            "/server.log -w -t 60 -o \"-p " + env("VOSTRA_TEST_PG_PORT") + " -k " +
                            socket_dir +
                            " -c listen_addresses=127.0.0.1 -c fsync=off\" start >/dev/null"));
}

bool stopMariadb() {
    const std::string data = env("VOSTRA_TEST_MYSQL_DATA");
    if (!runShell("kill $(cat " + data + "/mysqld.pid) 2>/dev/null")) return false;
    for (int i = 0; i < 120; ++i) {
        if (!runShell(mariadbPing() + " >/dev/null 2>&1")) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    return false;
}

bool startMariadb() {
    const std::string data = env("VOSTRA_TEST_MYSQL_DATA");
    runShell(asOwner("sh -c 'mariadbd $(cat " + data + "/args | tr \"\\n\" \" \") >/dev/null 2>&1 &'"));
    return waitUntil(mariadbPing());
}

}  // namespace vostra::test
