// The model registry of the real binary: its scan loop finds a model file
// at start-up, and the registry it keeps lets a restarted daemon answer
// before its first scan.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/daemon_process.h"
#include "tests/support/gguf_writer.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {
namespace {

using nlohmann::json;

TEST(ModelsApi, TheScanLoopFindsModelsAndTheRegistryOutlivesARestart) {
    const std::string dir = makeTempDir("vostra-models-api");
    std::filesystem::create_directories(dir + "/models");
    GGUFWriter()
        .add("general.architecture", GGUFValue::str("qwen2"))
        .add("general.name", GGUFValue::str("Little Qwen"))
        .write(dir + "/models/little-q8_0.gguf");
    const std::vector<std::string> args = {"--model-dir", dir + "/models", "--data-dir",
                                           dir + "/state"};
    json listed;
    {
        DaemonProcess daemon(args);
        ASSERT_TRUE(daemon.ready());
        for (int i = 0; i < 100; ++i) {
            listed = request(daemon.port(), "GET", "/api/v1/models?architecture=qwen2").json();
            if (listed.value("count", 0) == 1) break;
            usleep(100 * 1000);
        }
        ASSERT_EQ(listed["count"], 1) << listed;
        EXPECT_EQ(listed["models"][0]["metadata"]["model_name"], "Little Qwen");
        EXPECT_EQ(listed["models"][0]["quantization"], "Q8_0");
    }
    EXPECT_TRUE(std::filesystem::exists(dir + "/state/models_registry.json"));
    // Rewritten with the same size and time, the file is not read again:
    // the restarted daemon answers from the registry it kept.
    const std::string file = dir + "/models/little-q8_0.gguf";
    struct stat before {};
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    GGUFWriter()
        .add("general.architecture", GGUFValue::str("gemma"))
        .add("general.name", GGUFValue::str("Little Gemma"))
        .write(file);
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    DaemonProcess restarted(args);
    ASSERT_TRUE(restarted.ready());
    const json scanned = request(restarted.port(), "POST", "/api/v1/models/scan").json();
    EXPECT_EQ(scanned["unchanged"], 1) << scanned;
    listed = request(restarted.port(), "GET", "/api/v1/models").json();
    ASSERT_EQ(listed["count"], 1);
    EXPECT_EQ(listed["models"][0]["architecture"], "qwen2");
    removeTree(dir);
}

}  // namespace
}  // namespace vostra::test
