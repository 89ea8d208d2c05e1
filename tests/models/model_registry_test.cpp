// The model registry: what a scan finds and how it reads it, that an
// unchanged file is not read again, that records survive a restart, and
// that files gone are forgotten.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "models/model_registry.h"
#include "tests/support/gguf_writer.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using test::GGUFValue;
using test::GGUFWriter;

class Models : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vostra-models-XXXXXX";
        dir_ = mkdtemp(pattern);
        fs::create_directories(dir_ + "/a/nested");
        fs::create_directories(dir_ + "/b");
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::unique_ptr<ModelRegistry> registry() const {
        return std::make_unique<ModelRegistry>(
            std::vector<std::string>{dir_ + "/a", dir_ + "/b", dir_ + "/a", dir_ + "/missing"},
            dir_ + "/state/models.json");
    }
    static void writeGGUF(const std::string& path, const std::string& architecture) {
        GGUFWriter()
            .add("general.architecture", GGUFValue::str(architecture))
            .tensor("blk.0.w", {4, 4}, 1, 0)
            .write(path, 64);
    }
    static void writeSafetensors(const std::string& path) {
        const std::string header =
            R"({"__metadata__":{"format":"pt"},"w1":{"dtype":"BF16","shape":[2,3],"data_offsets":[0,12]},)"
            R"("b":{"dtype":"F32","shape":[2],"data_offsets":[12,20]}})";
        std::string bytes(8, '\0');
        for (int i = 0; i < 8; ++i) bytes[i] = static_cast<char>((header.size() >> (8 * i)) & 0xff);
        std::ofstream(path, std::ios::binary) << bytes << header << std::string(20, '\0');
    }

    std::string dir_;
};

TEST_F(Models, FindsEachFormatAndReadsItsHeader) {
    writeGGUF(dir_ + "/a/llama-Q4_K_M.gguf", "llama");
    writeGGUF(dir_ + "/b/Phi.GGUF", "phi3");
    writeSafetensors(dir_ + "/a/nested/model.safetensors");
    std::ofstream(dir_ + "/a/pytorch_model.bin", std::ios::binary) << "PK\3\4rest";
    std::ofstream(dir_ + "/a/vocab.bin", std::ios::binary) << "not a model";
    std::ofstream(dir_ + "/a/broken.gguf", std::ios::binary) << "GGUF\1\0\0\0";
    std::ofstream(dir_ + "/a/readme.txt") << "skip me";
    fs::create_symlink(dir_ + "/b/Phi.GGUF", dir_ + "/a/link.gguf");

    auto models = registry();
    const ModelScanSummary summary = models->scanModelFiles();
    EXPECT_EQ(summary.models, 5);
    EXPECT_EQ(summary.added, 5);

    const std::vector<ModelRecord> gguf = models->list("gguf", "");
    ASSERT_EQ(gguf.size(), 3u);
    EXPECT_EQ(gguf[0].file_name, "broken.gguf");
    EXPECT_EQ(gguf[0].error, "Unreadable GGUF header");
    EXPECT_EQ(gguf[1].architecture, "llama");
    EXPECT_EQ(gguf[1].quantization, "Q4_K_M");
    EXPECT_EQ(gguf[1].tensors.size(), 1u);
    EXPECT_EQ(gguf[1].metadata["model_type"], "llama");
    EXPECT_EQ(models->list("", "phi3").size(), 1u);

    const std::vector<ModelRecord> safetensors = models->list("safetensors", "");
    ASSERT_EQ(safetensors.size(), 1u);
    EXPECT_EQ(safetensors[0].quantization, "BF16");
    EXPECT_EQ(safetensors[0].metadata["parameter_count"], 8);
    ASSERT_EQ(safetensors[0].tensors.size(), 2u);
    EXPECT_EQ(safetensors[0].tensors[1]["shape"], (nlohmann::json{2, 3}));
    EXPECT_EQ(models->list("pytorch", "").size(), 1u);

    // Ids are stable and name one record.
    auto found = models->get(gguf[1].id);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->path, dir_ + "/a/llama-Q4_K_M.gguf");
    EXPECT_EQ(registry()->get(gguf[1].id), std::nullopt);  // nothing loaded yet
}

TEST_F(Models, UnchangedFilesAreNotReadAgainAndRecordsSurviveARestart) {
    const std::string file = dir_ + "/a/m.gguf";
    writeGGUF(file, "llama");
    auto models = registry();
    models->scanModelFiles();
    struct stat before {};
    ASSERT_EQ(stat(file.c_str(), &before), 0);

    // Same size, same time: the old reading stands.
    writeGGUF(file, "gemma");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    ModelScanSummary summary = models->scanModelFiles();
    EXPECT_EQ(summary.unchanged, 1);
    EXPECT_EQ(models->list("", "")[0].architecture, "llama");

    // A restart reads the registry file, not the model.
    auto restarted = registry();
    ASSERT_TRUE(restarted->load());
    ASSERT_EQ(restarted->list("", "").size(), 1u);
    EXPECT_EQ(restarted->list("", "")[0].architecture, "llama");
    EXPECT_EQ(restarted->scanModelFiles().unchanged, 1);

    // A new time is a change; a file gone is forgotten.
    const timespec later[2] = {before.st_atim, {before.st_mtim.tv_sec + 10, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), later, 0), 0);
    summary = restarted->scanModelFiles();
    EXPECT_EQ(summary.updated, 1);
    EXPECT_EQ(restarted->list("", "")[0].architecture, "gemma");
    fs::remove(file);
    summary = restarted->scanModelFiles();
    EXPECT_EQ(summary.removed, 1);
    EXPECT_TRUE(restarted->list("", "").empty());
    auto again = registry();
    ASSERT_TRUE(again->load());
    EXPECT_TRUE(again->list("", "").empty());

    std::ofstream(dir_ + "/state/models.json") << "{broken";
    EXPECT_FALSE(registry()->load());
}

}  // namespace
}  // namespace vostra::data
