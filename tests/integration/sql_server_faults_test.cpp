// Database servers that restart or go away under a running daemon. These
// tests stop the shared test servers, so they run alone (RUN_SERIAL).
#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"
#include "tests/support/test_servers.h"

namespace vostra::test {
namespace {

using nlohmann::json;

struct ServerControl {
    const char* name;
    TestServer (*describe)();
    bool (*stop)();
    bool (*start)();
};

void PrintTo(const ServerControl& control, std::ostream* out) {
    *out << control.name;
}

const ServerControl kPostgres{"PostgreSQL", &postgresServer, &stopPostgres, &startPostgres};
const ServerControl kMariadb{"MariaDB", &mariadbServer, &stopMariadb, &startMariadb};

class SqlServerFaultTest : public ::testing::TestWithParam<ServerControl> {
protected:
    void SetUp() override {
        server_ = GetParam().describe();
        if (!server_.available) GTEST_SKIP() << "no test server";
        daemon_ = std::make_unique<DaemonProcess>();
        ASSERT_TRUE(daemon_->ready());
        json config = server_.sourceConfig("db");
        // Quick health checks so the pool notices an outage within the test.
        config["pool_config"] = {{"min_connections", 2},
                                 {"health_check_interval_ms", 200},
                                 {"connection_timeout_ms", 1000}};
        ASSERT_EQ(request(daemon_->port(), "POST", "/api/v1/data/sources", config.dump()).status,
                  201);
    }
    void TearDown() override {
        // Whatever happened, leave the server running for the tests after us.
        if (server_.available && !server_.answers()) GetParam().start();
    }
    HttpResponse selectOne() {
        json body = {{"source_id", "db"}, {"sql", "SELECT 1 AS one"}, {"timeout_ms", 2000}};
        return request(daemon_->port(), "POST", "/api/v1/data/query", body.dump());
    }
    std::string sourceStatus() {
        return request(daemon_->port(), "GET", "/api/v1/data/sources/db")
            .json()
            .value("status", "");
    }

    TestServer server_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_P(SqlServerFaultTest, IdleConnectionsSurviveAServerRestart) {
    ASSERT_EQ(selectOne().status, 200);
    ASSERT_TRUE(GetParam().stop());
    ASSERT_TRUE(GetParam().start());
    // The pool validates on acquire and repairs or replaces the dead connections.
    auto after = selectOne();
    EXPECT_EQ(after.status, 200) << after.body;
    EXPECT_EQ(after.json()["rows"][0]["one"], "1");
}

TEST_P(SqlServerFaultTest, AnOutageIsReportedAndRecoveredFromWithoutARestart) {
    ASSERT_EQ(selectOne().status, 200);
    ASSERT_TRUE(GetParam().stop());

    const std::string during = selectOne().outcome();
    EXPECT_EQ(during.rfind("500 ", 0), 0u) << during;
    EXPECT_GT(during.size(), 4u) << "the driver's message";
    EXPECT_TRUE(eventually(
        [&] { return sourceStatus() == "degraded" || sourceStatus() == "error"; }, 20000));
    // Everything else keeps working meanwhile.
    EXPECT_EQ(request(daemon_->port(), "GET", "/health").status, 200);

    ASSERT_TRUE(GetParam().start());
    EXPECT_TRUE(eventually([&] { return selectOne().status == 200; }, 20000));
    EXPECT_TRUE(eventually([&] { return sourceStatus() == "connected"; }, 20000));
    EXPECT_TRUE(daemon_->running());
}

INSTANTIATE_TEST_SUITE_P(Servers, SqlServerFaultTest, ::testing::Values(kPostgres, kMariadb),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vostra::test
