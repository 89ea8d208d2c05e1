// The dashboard in headless Chromium against the real binary: every page at
// desktop and phone size without a console error or failed request, the
// databases and storage flows, a worker that requires keys, the pages shown
// under a controller's prefix, and areas that are turned off. Screenshots
// land in the build folder's artefacts/dashboard.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "sandbox/sandbox_runner.h"
#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class DashboardBrowser : public ::testing::Test {
protected:
    void SetUp() override {
        if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "Chromium is not installed (scripts/install-deps.sh test)";
        dir_ = makeTempDir("vostra-dashboard");
    }
    void TearDown() override {
        daemon_.reset();
        if (!dir_.empty()) removeTree(dir_);
    }
    // Runs the browser script; its report, failing the test with it when
    // the script found a fault.
    json browse(const std::string& mode, const json& options = json::object()) {
        const std::string shots = std::string(VOSTRA_ARTEFACT_DIR) + "/dashboard/" + mode;
        const std::string command = "node " + std::string(VOSTRA_SOURCE_DIR) + "/tests/tools/dashboard_browser.mjs " + mode +
                                    " http://127.0.0.1:" + std::to_string(daemon_->port()) + " " + shots + " '" +
                                    options.dump() + "' 2>&1";
        int status = -1;
        const std::string output = runCommand("timeout 240 " + command, &status);
        const json report = json::parse(output.substr(output.rfind("\n{") == std::string::npos ? 0 : output.rfind("\n{") + 1),
                                        nullptr, false);
        EXPECT_EQ(status, 0) << output;
        return report;
    }
    HttpResponse call(const std::string& method, const std::string& path, const std::string& body = "") {
        return request(daemon_->port(), method, path, body);
    }

    std::string dir_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(DashboardBrowser, EveryPageWorksAndTheFlowsComplete) {
    // Every area on, so that no page has a reason to fail a request.
    std::filesystem::create_directories(dir_ + "/home/.config/vostra");
    const std::string home = getenv("HOME") ? getenv("HOME") : "";
    setenv("HOME", (dir_ + "/home").c_str(), 1);
    const bool sandboxes = sandbox::SandboxRunner().probe().empty();
    daemon_ = std::make_unique<DaemonProcess>(ConfigFile{{{"data_dir", dir_ + "/state"},
                                                          {"agent_storage_enabled", true},
                                                          {"nfs_enabled", true},
                                                          {"nfs_port", freePort()},
                                                          {"sandboxes_enabled", sandboxes},
                                                          {"sandbox_path", dir_ + "/work"}}});
    setenv("HOME", home.c_str(), 1);
    ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    ASSERT_EQ(call("PUT", "/api/v1/vector/config", R"({"enabled":true,"embedding":{"type":1}})").status, 200);
    constexpr int kSources = 100;
    for (int i = 0; i < kSources; ++i)
        ASSERT_EQ(call("POST", "/api/v1/data/sources", json{{"id", "src" + std::to_string(i)}, {"type", "sqlite"}}.dump()).status, 201);

    const json report = browse("pages", {{"sources", kSources}, {"sqlite_path", dir_ + "/browser.db"}});
    // A figure for the note, not a verdict: timing belongs to benchmarks.
    std::cout << "overview with " << kSources << " sources ready at " << report.value("overview_ms", 0.0)
              << " ms after navigation (" << report.value("overview_wall_ms", 0) << " ms wall)" << std::endl;
    if (!sandboxes) std::cout << "sandboxes unavailable here: the developer tools page shows so" << std::endl;
}

TEST_F(DashboardBrowser, AsksForAKeyOnceWhenTheWorkerRequiresOne) {
    daemon_ = std::make_unique<DaemonProcess>(
        ConfigFile{{{"auth_mode", "keys"}, {"admin_api_keys", {"dashboard-admin-key"}}, {"data_dir", dir_ + "/state"}}});
    ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
    browse("keys", {{"key", "dashboard-admin-key"}});
}

TEST_F(DashboardBrowser, PagesShownUnderAControllerPrefixFollowIt) {
    daemon_ = std::make_unique<DaemonProcess>(ConfigFile{{{"data_dir", dir_ + "/state"}}});
    ASSERT_TRUE(daemon_->ready());
    browse("proxy");
}

TEST_F(DashboardBrowser, AreasTurnedOffSaySo) {
    daemon_ = std::make_unique<DaemonProcess>(ConfigFile{{{"data_dir", dir_ + "/state"}}});
    ASSERT_TRUE(daemon_->ready());
    browse("unavailable");
}

}  // namespace
}  // namespace vostra::test
