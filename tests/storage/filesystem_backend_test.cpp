// What only the filesystem backend has: its layout on disk, its sidecars,
// and its refusal to follow anything planted in a tenant's folder.
#include "storage/filesystem_backend.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "storage/storage_service_config.h"
#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class FilesystemBackendTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = test::makeTempDir("vostra-fs");
        StorageServiceConfig config;
        config.base_path = dir_ + "/base";
        ASSERT_TRUE(backend_.initialize(config));
        ASSERT_TRUE(backend_.createTenantDirectory("t"));
        root_ = dir_ + "/base/tenants/t";
        outside_ = dir_ + "/outside";
        fs::create_directories(outside_);
        std::ofstream(outside_ + "/secret.txt") << "secret";
    }
    void TearDown() override { test::removeTree(dir_); }

    std::string dir_, root_, outside_;
    FilesystemBackend backend_;
};

TEST_F(FilesystemBackendTest, KeepsTheContractLayoutWithSidecars) {
    for (const char* sub :
         {"base/cluster", "base/system", "base/tenants/t/swarms", "base/tenants/t/artifacts",
          "base/tenants/t/sessions", "base/tenants/t/uploads"})
        EXPECT_TRUE(fs::is_directory(dir_ + "/" + sub)) << sub;

    ASSERT_TRUE(backend_.write("t", "docs/notes.MD", "# hi", "", {{"k", "v"}}).success);
    EXPECT_EQ(slurp(root_ + "/docs/notes.MD"), "# hi");
    const auto sidecar = nlohmann::json::parse(slurp(root_ + "/docs/notes.MD.meta"));
    EXPECT_EQ(sidecar["content_type"], "text/markdown");
    EXPECT_EQ(sidecar["size"], 4);
    EXPECT_EQ(sidecar["metadata"]["k"], "v");
    EXPECT_EQ(sidecar["checksum"].get<std::string>().size(), 64u);
    EXPECT_TRUE(sidecar["modified_at"].is_number_integer());
    EXPECT_EQ(backend_.getAbsolutePath("t", "/docs/../x"), dir_ + "/base/tenants/t/docs/x");

    const StorageResult listed = backend_.list("t", "docs", false, "", 100, 0);
    ASSERT_EQ(listed.entries.size(), 1u);  // the sidecar is never listed
    EXPECT_TRUE(backend_.remove("t", "docs/notes.MD", false).success);
    EXPECT_FALSE(fs::exists(root_ + "/docs/notes.MD.meta"));
}

TEST_F(FilesystemBackendTest, RefusesEveryPathThroughAPlantedLinkAndNeverFollowsOne) {
    ASSERT_TRUE(backend_.write("t", "box/real.txt", "r", "", {}).success);
    fs::create_directory_symlink(outside_, root_ + "/box/door");
    fs::create_symlink(outside_ + "/secret.txt", root_ + "/alias.txt");
    const std::vector<std::pair<std::string, StorageResult>> attempts = {
        {"read through", backend_.read("t", "box/door/secret.txt", 0, -1)},
        {"read link", backend_.read("t", "alias.txt", 0, -1)},
        {"write through", backend_.write("t", "box/door/new.txt", "x", "", {})},
        {"write link", backend_.write("t", "alias.txt", "x", "", {})},
        {"list", backend_.list("t", "box/door", true, "", 100, 0)},
        {"stat", backend_.stat("t", "box/door/secret.txt")},
        {"mkdir", backend_.mkdir("t", "box/door/sub")},
        {"remove", backend_.remove("t", "box/door/secret.txt", false)},
        {"move out", backend_.move("t", "box/door/secret.txt", "stolen.txt")},
        {"copy in", backend_.copy("t", "alias.txt", "copied.txt")},
        {"copy a folder holding one", backend_.copy("t", "box", "box2")},
    };
    for (const auto& [what, result] : attempts) {
        EXPECT_FALSE(result.success) << what;
        EXPECT_EQ(result.kind, ErrorKind::Refused) << what << ": " << result.error;
    }
    for (const FileEntry& entry : backend_.list("t", "", true, "", 100, 0).entries)
        EXPECT_EQ(entry.path.find("door"), std::string::npos);
    EXPECT_EQ(backend_.getTenantUsage("t").file_count, 1);
    EXPECT_TRUE(backend_.remove("t", "box", true).success);  // removes the link, not its target
    EXPECT_EQ(slurp(outside_ + "/secret.txt"), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside_), fs::directory_iterator()), 1);
    EXPECT_FALSE(fs::exists(root_ + "/stolen.txt") || fs::exists(root_ + "/box2"));
}

TEST_F(FilesystemBackendTest, RefusesATenantRootThatIsALink) {
    fs::create_directory_symlink(outside_, dir_ + "/base/tenants/evil");
    EXPECT_FALSE(backend_.createTenantDirectory("evil"));
    EXPECT_EQ(backend_.read("evil", "secret.txt", 0, -1).kind, ErrorKind::Refused);
    EXPECT_EQ(backend_.list("evil", "", false, "", 100, 0).kind, ErrorKind::Refused);
    EXPECT_EQ(backend_.getTenantUsage("evil").storage_used_bytes, 0);
    EXPECT_FALSE(fs::exists(outside_ + "/swarms"));
}

TEST_F(FilesystemBackendTest, RefusesAPlantedFifoInsteadOfBlocking) {
    ASSERT_EQ(mkfifo((root_ + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(backend_.read("t", "pipe", 0, -1).kind, ErrorKind::Refused);
    EXPECT_FALSE(backend_.write("t", "pipe", "x", "", {}).success);
    EXPECT_EQ(backend_.copy("t", "pipe", "p2").kind, ErrorKind::Refused);
}

TEST_F(FilesystemBackendTest, DistrustsASidecarWithAHeaderBreakingType) {
    ASSERT_TRUE(backend_.write("t", "a.txt", "x", "", {}).success);
    std::ofstream(root_ + "/a.txt.meta") << R"({"content_type":"text/plain\r\nX-Evil: 1"})";
    EXPECT_EQ(backend_.read("t", "a.txt", 0, -1).entry->content_type, "text/plain");
}

}  // namespace
}  // namespace vostra::data
