#include "daemon/command_line.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

class CommandLineTest : public ::testing::Test {
protected:
    void SetUp() override { dir_ = test::makeTempDir("vostra-cli"); }
    void TearDown() override { test::removeTree(dir_); }

    std::string writeConfig(const nlohmann::json& json) {
        std::string path = dir_ + "/config.json";
        std::ofstream(path) << json.dump();
        return path;
    }

    CommandLine parse(std::vector<std::string> args) {
        args.insert(args.begin(), "vostra-datad");
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        // Released on every way out, exceptions included: a capture left
        // open aborts the next test that captures.
        struct Quiet {
            Quiet() {
                testing::internal::CaptureStdout();
                testing::internal::CaptureStderr();
            }
            ~Quiet() {
                testing::internal::GetCapturedStdout();
                testing::internal::GetCapturedStderr();
            }
        } quiet;
        return parseCommandLine(static_cast<int>(args.size()), argv.data());
    }

    std::string dir_;
};

TEST_F(CommandLineTest, ConfigFileReplacesEverythingGivenBeforeIt) {
    std::string file = writeConfig({{"daemon_name", "from-file"}});
    CommandLine line = parse({"-p", "9000", "-l", "a", "--config", file});
    EXPECT_EQ(line.config.port, 8892);
    EXPECT_TRUE(line.config.labels.empty());
    EXPECT_EQ(line.config.daemon_name, "from-file");

    line = parse({"--config", writeConfig({{"port", 7000}}), "-p", "9000"});
    EXPECT_EQ(line.config.port, 9000);
}

TEST_F(CommandLineTest, ConfigFileWithOnlyAPortKeepsOtherDefaults) {
    CommandLine line = parse({"--config", writeConfig({{"port", 7001}})});
    DataDaemonConfig defaults;
    EXPECT_EQ(line.config.port, 7001);
    EXPECT_EQ(line.config.storage_path, defaults.storage_path);
    EXPECT_EQ(line.config.heartbeat_interval_ms, 30000);
    EXPECT_EQ(line.config.embedding_model, "nomic-embed-text");
    EXPECT_TRUE(line.config.storage_enabled);
    EXPECT_FALSE(line.exit_status);
}

TEST_F(CommandLineTest, UnreadableOrInvalidConfigExitsOne) {
    EXPECT_EQ(parse({"--config", dir_ + "/missing.json"}).exit_status, 1);
    std::ofstream(dir_ + "/bad.json") << "{not json";
    EXPECT_EQ(parse({"--config", dir_ + "/bad.json"}).exit_status, 1);
    EXPECT_EQ(parse({"--config", writeConfig({{"port", "eighty"}})}).exit_status, 1);
}

TEST_F(CommandLineTest, RepeatableOptionsAccumulateInOrder) {
    CommandLine line = parse({"-l", "gpu", "--label", "ssd", "--add-source", "{\"id\":\"a\"}",
                              "--add-source", "{\"id\":\"b\"}"});
    EXPECT_EQ(line.config.labels, (std::vector<std::string>{"gpu", "ssd"}));
    EXPECT_EQ(line.add_sources.size(), 2u);
    EXPECT_EQ(line.add_sources[1], "{\"id\":\"b\"}");
}

TEST_F(CommandLineTest, FlagsAndValuedOptionsReachTheirFields) {
    CommandLine line = parse({"-c", "http://ctl:8880", "-b", "127.0.0.1", "-n", "w1", "-d",
                              "--data-dir", "/d", "--heartbeat", "250", "--storage-backend",
                              "memory", "--no-storage", "--nfs", "--nfs-port", "12049",
                              "--agent-storage", "--max-connections", "4"});
    EXPECT_EQ(line.config.controller_url, "http://ctl:8880");
    EXPECT_EQ(line.config.bind_address, "127.0.0.1");
    EXPECT_EQ(line.config.daemon_name, "w1");
    EXPECT_TRUE(line.daemonize);
    EXPECT_EQ(line.config.data_dir, "/d");
    EXPECT_EQ(line.config.heartbeat_interval_ms, 250);
    EXPECT_EQ(line.config.storage_backend, "memory");
    EXPECT_FALSE(line.config.storage_enabled);
    EXPECT_TRUE(line.config.nfs_enabled);
    EXPECT_EQ(line.config.nfs_port, 12049);
    EXPECT_TRUE(line.config.agent_storage_enabled);
    EXPECT_EQ(line.config.max_connections, 4);
}

TEST_F(CommandLineTest, NonNumericPortThrowsConversionError) {
    EXPECT_THROW(parse({"-p", "http"}), std::invalid_argument);
}

TEST_F(CommandLineTest, HelpVersionAndBadOptionsEndWithTheirStatus) {
    EXPECT_EQ(parse({"--help"}).exit_status, 0);
    EXPECT_EQ(parse({"-V"}).exit_status, 0);
    EXPECT_EQ(parse({"--list-connectors"}).exit_status, 0);
    EXPECT_EQ(parse({"--bogus"}).exit_status, 1);
    EXPECT_EQ(parse({"-p"}).exit_status, 1);
}

}  // namespace
}  // namespace vostra::data
