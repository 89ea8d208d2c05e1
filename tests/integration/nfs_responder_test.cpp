// The built-in NFS responder of the real binary, used by a real NFSv3
// client (libnfs: its command-line tools and its C interface) over
// loopback, without a portmapper: the files seen over NFS and over the
// storage API are the same files.
#include <gtest/gtest.h>
#include <nfsc/libnfs.h>

#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

namespace fs = std::filesystem;

const std::string kFiles = "/api/v1/storage/default/";

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool hasTools() {
    return runCommand("which nfs-ls nfs-cat nfs-cp >/dev/null 2>&1 && echo yes") == "yes\n";
}

class NfsResponder : public ::testing::Test {
protected:
    void start(nlohmann::json extra = nlohmann::json::object()) {
        nfs_port_ = freePort();
        ConfigFile config;
        config.settings = {{"nfs_enabled", true}, {"nfs_port", nfs_port_}};
        config.settings.update(extra);
        daemon_ = std::make_unique<DaemonProcess>(config);
        ASSERT_TRUE(daemon_->ready()) << daemon_->stderrText();
        tenant_ = daemon_->dir() + "/storage/tenants/default";
    }
    // The URL of `path` in the default tenant's folder.
    std::string url(const std::string& path = "") const {
        return "'nfs://127.0.0.1" + tenant_ + "/" + path + "?version=3&nfsport=" +
               std::to_string(nfs_port_) + "&mountport=" + std::to_string(nfs_port_) + "'";
    }
    std::string run(const std::string& command, int* status = nullptr) {
        return runCommand("timeout 30 " + command + " 2>&1", status);
    }

    int nfs_port_ = 0;
    std::string tenant_;
    std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(NfsResponder, ClientToolsListReadAndCopyTheTenantsFiles) {
    if (!hasTools()) GTEST_SKIP() << "libnfs-utils is not installed";
    start();
    ASSERT_EQ(request(daemon_->port(), "PUT", kFiles + "docs/hello.txt", "hello over nfs").status,
              201);
    int status = -1;
    const std::string listed = run("nfs-ls " + url("docs"), &status);
    EXPECT_EQ(status, 0) << listed;
    EXPECT_NE(listed.find("hello.txt"), std::string::npos) << listed;
    EXPECT_EQ(listed.find(".meta"), std::string::npos) << listed;
    EXPECT_EQ(run("nfs-cat " + url("docs/hello.txt")), "hello over nfs");

    // In and out again, byte for byte, across several READs and WRITEs.
    const std::string local = daemon_->dir() + "/local.bin";
    runCommand("head -c 3000000 /dev/urandom > " + local);
    EXPECT_EQ(run("nfs-cp " + local + " " + url("docs/big.bin"), &status).find("copied"), 0u);
    EXPECT_EQ(fileText(tenant_ + "/docs/big.bin"), fileText(local));
    const std::string back = daemon_->dir() + "/back.bin";
    run("nfs-cp " + url("docs/big.bin") + " " + back, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(fileText(back), fileText(local));

    // The storage API sees what came over NFS, typed by its extension.
    const HttpResponse via_api = request(daemon_->port(), "GET", kFiles + "docs/big.bin");
    EXPECT_EQ(via_api.body.size(), 3000000u);
    EXPECT_NE(via_api.head.find("application/octet-stream"), std::string::npos);
    const auto usage = request(daemon_->port(), "GET", "/api/v1/tenants/default/usage").json();
    EXPECT_GE(usage["storage_used_bytes"].get<int64_t>(), 3000000);
}

TEST_F(NfsResponder, ClientMakesRenamesAndRemovesFilesAndFolders) {
    start();
    const auto status = request(daemon_->port(), "GET", "/api/v1/nfs/status").json();
    EXPECT_EQ(status["enabled"], true);
    EXPECT_EQ(status["running"], true);
    nfs_context* nfs = nfs_init_context();
    ASSERT_NE(nfs, nullptr);
    const std::string mount_url = "nfs://127.0.0.1" + tenant_ + "?version=3&nfsport=" +
                                  std::to_string(nfs_port_) + "&mountport=" +
                                  std::to_string(nfs_port_);
    nfs_url* parsed = nfs_parse_url_dir(nfs, mount_url.c_str());
    ASSERT_NE(parsed, nullptr) << nfs_get_error(nfs);
    ASSERT_EQ(nfs_mount(nfs, parsed->server, parsed->path), 0) << nfs_get_error(nfs);

    EXPECT_EQ(nfs_mkdir(nfs, "/made"), 0) << nfs_get_error(nfs);
    nfsfh* file = nullptr;
    ASSERT_EQ(nfs_creat(nfs, "/made/note.txt", 0644, &file), 0) << nfs_get_error(nfs);
    EXPECT_EQ(nfs_write(nfs, file, 5, "hello"), 5);
    EXPECT_EQ(nfs_close(nfs, file), 0);
    EXPECT_EQ(request(daemon_->port(), "GET", kFiles + "made/note.txt").body, "hello");

    // A file written through the API moves with its sidecar.
    ASSERT_EQ(request(daemon_->port(), "PUT", kFiles + "made/typed.dat",
                      R"({"data":"x","content_type":"text/x-typed"})")
                  .status,
              201);
    EXPECT_EQ(nfs_rename(nfs, "/made/typed.dat", "/typed.dat"), 0) << nfs_get_error(nfs);
    const HttpResponse moved = request(daemon_->port(), "GET", kFiles + "typed.dat");
    EXPECT_NE(moved.head.find("Content-Type: text/x-typed"), std::string::npos) << moved.head;
    EXPECT_FALSE(fs::exists(tenant_ + "/made/typed.dat.meta"));

    EXPECT_NE(nfs_rmdir(nfs, "/made"), 0);  // not empty
    EXPECT_EQ(nfs_unlink(nfs, "/made/note.txt"), 0) << nfs_get_error(nfs);
    EXPECT_EQ(nfs_rmdir(nfs, "/made"), 0) << nfs_get_error(nfs);
    EXPECT_EQ(nfs_unlink(nfs, "/typed.dat"), 0);
    EXPECT_FALSE(fs::exists(tenant_ + "/typed.dat.meta"));
    EXPECT_EQ(request(daemon_->port(), "GET", kFiles + "made/").status, 404);

    nfs_destroy_url(parsed);
    nfs_destroy_context(nfs);
}

TEST_F(NfsResponder, ReadOnlyShareRefusesChanges) {
    if (!hasTools()) GTEST_SKIP() << "libnfs-utils is not installed";
    start({{"nfs_read_only", true}});
    ASSERT_EQ(request(daemon_->port(), "PUT", kFiles + "r.txt", "read me").status, 201);
    EXPECT_EQ(run("nfs-cat " + url("r.txt")), "read me");
    const std::string local = daemon_->dir() + "/in.txt";
    runCommand("echo new > " + local);
    int status = 0;
    run("nfs-cp " + local + " " + url("new.txt"), &status);
    EXPECT_NE(status, 0);
    EXPECT_FALSE(fs::exists(tenant_ + "/new.txt"));
}

}  // namespace
}  // namespace vostra::test
