// The model routes answered in process: a rescan finds the files of a
// model folder, the list filters them, and one model's metadata and
// tensors are read by id.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/gguf_writer.h"
#include "tests/support/in_process_daemon.h"

namespace vostra::test {
namespace {

using nlohmann::json;

class ModelRoutes : public ::testing::Test {
protected:
    ModelRoutes()
        : daemon_([this](data::DataDaemonConfig& config) {
              folder_ = std::filesystem::temp_directory_path() /
                        ("vostra-model-routes-" + std::to_string(::getpid()));
              std::filesystem::create_directories(folder_);
              config.model_dirs = {folder_.string()};
          }) {}
    ~ModelRoutes() override { std::filesystem::remove_all(folder_); }

    std::filesystem::path folder_;
    InProcessDaemon daemon_;
};

TEST_F(ModelRoutes, ScanListFilterAndReadOneModel) {
    GGUFWriter()
        .add("general.architecture", GGUFValue::str("llama"))
        .add("llama.block_count", GGUFValue::u32(1))
        .tensor("blk.0.attn_q.weight", {8, 8}, 12, 0)
        .write((folder_ / "tiny.Q4_K_M.gguf").string(), 128);
    GGUFWriter()
        .add("general.architecture", GGUFValue::str("gemma"))
        .write((folder_ / "other.gguf").string());

    EXPECT_EQ(daemon_.call("GET", "/api/v1/models").json()["count"], 0);
    const json scanned = daemon_.call("POST", "/api/v1/models/scan").json();
    EXPECT_EQ(scanned["status"], "scanned");
    EXPECT_EQ(scanned["added"], 2);

    const json llama = daemon_.call("GET", "/api/v1/models?format=gguf&architecture=llama").json();
    ASSERT_EQ(llama["count"], 1);
    const json& model = llama["models"][0];
    EXPECT_EQ(model["file_name"], "tiny.Q4_K_M.gguf");
    EXPECT_EQ(model["quantization"], "Q4_K_M");
    EXPECT_FALSE(model.contains("tensors"));
    EXPECT_EQ(daemon_.call("GET", "/api/v1/models?format=safetensors").json()["count"], 0);

    const std::string id = model["id"];
    const json one = daemon_.call("GET", "/api/v1/models/" + id).json();
    EXPECT_EQ(one["metadata"]["block_count"], 1);
    const json tensors = daemon_.call("GET", "/api/v1/models/" + id + "/tensors").json();
    ASSERT_EQ(tensors["count"], 1);
    EXPECT_EQ(tensors["tensors"][0]["type_name"], "q4_k");

    EXPECT_EQ(daemon_.call("GET", "/api/v1/models/model-0000").outcome(), "404 Model not found");
    EXPECT_EQ(daemon_.call("GET", "/api/v1/models/" + id + "/weights").outcome(),
              "404 Models endpoint not found");
    EXPECT_EQ(daemon_.call("DELETE", "/api/v1/models/" + id).outcome(), "405 Method not allowed");
    EXPECT_EQ(daemon_.call("GET", "/api/v1/models/scan").outcome(), "404 Models endpoint not found");
}

}  // namespace
}  // namespace vostra::test
