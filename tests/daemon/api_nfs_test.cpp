// The NFS configuration routes answered in process: exports and mounts kept
// unique, the generated file, and apply that validates before it writes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class NfsRoutes : public ::testing::Test {
protected:
    NfsRoutes()
        : daemon_([](data::DataDaemonConfig& config) {
              config.ganesha_conf_path = "/nonexistent-vostra-dir/ganesha.conf";
          }) {}
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "") {
        return daemon_.call(method, path, body);
    }

    InProcessDaemon daemon_;
};

TEST_F(NfsRoutes, ExportsAndMountsStayUniqueByTheirIds) {
    const std::string exports = "/api/v1/nfs/exports";
    const json export7 = {{"export_id", 7}, {"path", "/srv/a"}, {"pseudo_path", "/a"}};
    EXPECT_EQ(call("POST", exports, export7.dump()).json(),
              (json{{"status", "created"}, {"export_id", 7}}));
    EXPECT_EQ(call("POST", exports, export7.dump()).outcome(), "400 Export ID already exists");
    EXPECT_EQ(call("POST", exports, "{nope").status, 400);
    EXPECT_EQ(call("POST", exports, R"({"export_id":"seven"})").status, 400);
    const json listed = call("GET", exports).json();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["path"], "/srv/a");
    EXPECT_EQ(call("DELETE", exports + "/77").outcome(), "404 Export not found");
    EXPECT_EQ(call("DELETE", exports + "/7x").outcome(), "404 Export not found");
    EXPECT_EQ(call("GET", exports + "/7").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("DELETE", exports + "/7").json()["status"], "deleted");
    EXPECT_TRUE(call("GET", exports).json().empty());

    const std::string mounts = "/api/v1/nfs/mounts";
    const json mount = {{"id", "w2"},
                        {"name", "Worker 2"},
                        {"remote_host", "10.0.0.2"},
                        {"local_mount_point", "/mnt/w2"}};
    EXPECT_EQ(call("POST", mounts, mount.dump()).status, 201);
    EXPECT_EQ(call("POST", mounts, mount.dump()).outcome(), "400 Mount ID already exists");
    const std::string unit = call("GET", mounts + "/w2").json()["unit"];
    EXPECT_NE(unit.find("Where=/mnt/w2\n"), std::string::npos);
    EXPECT_EQ(call("GET", mounts + "/w3").outcome(), "404 Mount not found");
    EXPECT_EQ(call("DELETE", mounts + "/w2").json()["status"], "deleted");
    EXPECT_EQ(call("DELETE", mounts + "/w2").outcome(), "404 Mount not found");
}

TEST_F(NfsRoutes, TenantExportsPointAtTheTenantsFolders) {
    ASSERT_EQ(call("POST", "/api/v1/tenants", R"({"id":"acme"})").status, 201);
    const json exports =
        call("POST", "/api/v1/nfs/exports/tenants", R"({"clients":[{"clients":"10.0.0.0/8"}]})")
            .json();
    ASSERT_EQ(exports.size(), 3u);  // root, acme, default
    const std::string tenants = daemon_.dir() + "/storage/tenants";
    EXPECT_EQ(exports[0]["path"], tenants);
    EXPECT_EQ(exports[1]["path"], tenants + "/acme");
    EXPECT_EQ(exports[1]["export_id"], 100);
    EXPECT_EQ(exports[2]["clients"][0]["clients"], "10.0.0.0/8");
    EXPECT_EQ(call("GET", "/api/v1/nfs/exports").json(), exports);
}

TEST_F(NfsRoutes, WholeConfigurationStatusAndUnknownPaths) {
    const json config = {{"enabled", true},
                         {"global", {{"nfs_port", 12049}, {"domain_name", "lab"}}},
                         {"exports", {{{"export_id", 1}, {"path", "/srv"}, {"pseudo_path", "/"}}}}};
    EXPECT_EQ(call("PUT", "/api/v1/nfs/config", config.dump()).json()["status"], "updated");
    const json back = call("GET", "/api/v1/nfs/config").json();
    EXPECT_EQ(back["global"]["domain_name"], "lab");
    EXPECT_EQ(back["global"]["num_workers"], 16);
    const std::string text = call("GET", "/api/v1/nfs/ganesha-conf").json()["config"];
    EXPECT_NE(text.find("    NFS_Port = 12049;\n"), std::string::npos);
    EXPECT_NE(text.find("# 1 exports defined\n"), std::string::npos);

    const json status = call("GET", "/api/v1/nfs/status").json();
    EXPECT_EQ(status["enabled"], false);
    EXPECT_EQ(status["running"], false);
    EXPECT_EQ(call("POST", "/api/v1/nfs/status").outcome(), "405 Method not allowed");
    EXPECT_EQ(call("PUT", "/api/v1/nfs/config", "[1,").status, 400);
    for (const char* path : {"/api/v1/nfs", "/api/v1/nfs/", "/api/v1/nfs/other"})
        EXPECT_EQ(call("GET", path).outcome(), "404 NFS endpoint not found") << path;
}

TEST_F(NfsRoutes, ApplyValidatesFirstAndWritesWholeFiles) {
    const json bad = {{"exports",
                       {{{"export_id", 1}, {"path", "/srv"}, {"pseudo_path", "/x"}},
                        {{"export_id", 1}, {"path", "/srv"}, {"pseudo_path", "/y"}}}}};
    ASSERT_EQ(call("PUT", "/api/v1/nfs/config", bad.dump()).status, 200);
    HttpResponse applied = call("POST", "/api/v1/nfs/apply");
    EXPECT_EQ(applied.outcome(), "500 Failed to apply configuration");
    EXPECT_EQ(applied.json()["detail"], "Duplicate export ID: 1");

    ASSERT_EQ(call("PUT", "/api/v1/nfs/config", "{}").status, 200);
    applied = call("POST", "/api/v1/nfs/apply");
    EXPECT_EQ(applied.status, 500);
    EXPECT_EQ(applied.json()["detail"].get<std::string>().rfind(
                  "Cannot write to /nonexistent-vostra-dir/ganesha.conf", 0),
              0u);
    EXPECT_EQ(call("GET", "/api/v1/nfs/apply").outcome(), "405 Method not allowed");
}

}  // namespace
}  // namespace vostra::test
