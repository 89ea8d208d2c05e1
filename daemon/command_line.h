// The entry point's command line: options into a DataDaemonConfig, and the
// texts the program prints about itself (version, banner, usage, connectors,
// effective configuration).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "daemon/data_daemon_config.h"

namespace vostra::data {

inline constexpr const char* kProgramVersion = "4.1.0";

struct CommandLine {
    DataDaemonConfig config;
    std::vector<std::string> add_sources;  // --add-source texts, in order
    bool daemonize = false;
    // Set when the program must end now (help, version, a bad option, an
    // unreadable configuration file) with this status.
    std::optional<int> exit_status;
};

// Applies options in the order given; "--config" replaces the whole record.
// Prints usage, version, connector list and errors itself. A non-numeric
// port or interval throws std::invalid_argument or std::out_of_range.
CommandLine parseCommandLine(int argc, char* argv[]);

// Why the values of `config` cannot work (a port out of range, no
// connections allowed), or empty when they can.
std::string configurationProblem(const DataDaemonConfig& config);

void printVersion();
void printBanner();
void printUsage(const char* argv0);
void printConnectors();
void printConfiguration(const DataDaemonConfig& config);

}  // namespace vostra::data
