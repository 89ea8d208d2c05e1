#include "daemon/command_line.h"

#include <gtest/gtest.h>

namespace vostra::data {
namespace {

// The other options, the exit statuses and "--config" precedence are checked
// against the real binary; these have no effect visible there yet.
TEST(CommandLine, OptionsWithoutAVisibleEffectStillReachTheirFields) {
    std::vector<std::string> args = {
        "vostra-datad",    "-b", "127.0.0.1", "--nfs",   "--nfs-port", "12049",
        "--agent-storage", "-l", "gpu",       "--label", "ssd"};
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const CommandLine line = parseCommandLine(static_cast<int>(args.size()), argv.data());
    EXPECT_FALSE(line.exit_status);
    EXPECT_EQ(line.config.bind_address, "127.0.0.1");
    EXPECT_TRUE(line.config.nfs_enabled);
    EXPECT_EQ(line.config.nfs_port, 12049);
    EXPECT_TRUE(line.config.agent_storage_enabled);
    EXPECT_EQ(line.config.labels, (std::vector<std::string>{"gpu", "ssd"}));
}

}  // namespace
}  // namespace vostra::data
