#include "daemon/command_line.h"

#include <getopt.h>

#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "connectors/connector_type.h"
#include "connectors/data_connector_factory.h"
#include "storage/storage_service_config.h"

namespace vostra::data {
namespace {

enum LongOnly {
    kConfig = 1,
    kAddSource,
    kDataDir,
    kLogFile,
    kHeartbeat,
    kListConnectors,
    kStoragePath,
    kStorageBackend,
    kNoStorage,
    kNfs,
    kNfsPort,
    kAgentStorage,
    kMaxConnections,
    kMaxWaitingConnections,
    kS3Endpoint,
    kS3Bucket,
    kS3Region,
    kS3AccessKey,
    kS3SecretKey,
    kGitPath,
    kNoGit,
    kModelDir,
    kScienceKeysFile,
    kScienceProvidersFile,
    kSandboxes,
    kSandboxPath,
    kAuthMode,
    kTlsCert,
    kTlsKey,
};

const option kLongOptions[] = {
    {"controller", required_argument, nullptr, 'c'},
    {"port", required_argument, nullptr, 'p'},
    {"bind", required_argument, nullptr, 'b'},
    {"name", required_argument, nullptr, 'n'},
    {"daemon", no_argument, nullptr, 'd'},
    {"label", required_argument, nullptr, 'l'},
    {"config", required_argument, nullptr, kConfig},
    {"add-source", required_argument, nullptr, kAddSource},
    {"data-dir", required_argument, nullptr, kDataDir},
    {"log-file", required_argument, nullptr, kLogFile},
    {"heartbeat", required_argument, nullptr, kHeartbeat},
    {"list-connectors", no_argument, nullptr, kListConnectors},
    {"storage-path", required_argument, nullptr, kStoragePath},
    {"storage-backend", required_argument, nullptr, kStorageBackend},
    {"no-storage", no_argument, nullptr, kNoStorage},
    {"nfs", no_argument, nullptr, kNfs},
    {"nfs-port", required_argument, nullptr, kNfsPort},
    {"agent-storage", no_argument, nullptr, kAgentStorage},
    {"version", no_argument, nullptr, 'V'},
    {"help", no_argument, nullptr, 'h'},
    {"max-connections", required_argument, nullptr, kMaxConnections},
    {"max-waiting-connections", required_argument, nullptr, kMaxWaitingConnections},
    {"s3-endpoint", required_argument, nullptr, kS3Endpoint},
    {"s3-bucket", required_argument, nullptr, kS3Bucket},
    {"s3-region", required_argument, nullptr, kS3Region},
    {"s3-access-key", required_argument, nullptr, kS3AccessKey},
    {"s3-secret-key", required_argument, nullptr, kS3SecretKey},
    {"git-path", required_argument, nullptr, kGitPath},
    {"no-git", no_argument, nullptr, kNoGit},
    {"model-dir", required_argument, nullptr, kModelDir},
    {"science-keys-file", required_argument, nullptr, kScienceKeysFile},
    {"science-providers-file", required_argument, nullptr, kScienceProvidersFile},
    {"sandboxes", no_argument, nullptr, kSandboxes},
    {"sandbox-path", required_argument, nullptr, kSandboxPath},
    {"auth-mode", required_argument, nullptr, kAuthMode},
    {"tls-cert", required_argument, nullptr, kTlsCert},
    {"tls-key", required_argument, nullptr, kTlsKey},
    {nullptr, 0, nullptr, 0},
};

// Returns the exit status when the file cannot be used.
std::optional<int> loadConfigFile(const std::string& path, DataDaemonConfig& config) {
    std::ifstream file(path);
    if (!file) {
        std::cerr << "Cannot open config file: " << path << std::endl;
        return 1;
    }
    try {
        config = DataDaemonConfig::fromJson(nlohmann::json::parse(file));
    } catch (const std::exception& error) {
        std::cerr << "Error reading config file: " << error.what() << std::endl;
        return 1;
    }
    return std::nullopt;
}

}  // namespace

CommandLine parseCommandLine(int argc, char* argv[]) {
    CommandLine line;
    DataDaemonConfig& config = line.config;
    optind = 0;  // full re-initialisation, so the parser can run more than once
    opterr = 1;

    int option;
    while ((option = getopt_long(argc, argv, "c:p:b:n:dl:Vh", kLongOptions, nullptr)) != -1) {
        switch (option) {
            case 'c': config.controller_url = optarg; break;
            case 'p': config.port = std::stoi(optarg); break;
            case 'b': config.bind_address = optarg; break;
            case 'n': config.daemon_name = optarg; break;
            case 'd': line.daemonize = true; break;
            case 'l': config.labels.emplace_back(optarg); break;
            case kConfig:
                if (auto status = loadConfigFile(optarg, config)) {
                    line.exit_status = status;
                    return line;
                }
                break;
            case kAddSource: line.add_sources.emplace_back(optarg); break;
            case kDataDir: config.data_dir = optarg; break;
            case kLogFile: config.log_file = optarg; break;
            case kHeartbeat: config.heartbeat_interval_ms = std::stoi(optarg); break;
            case kListConnectors:
                printConnectors();
                line.exit_status = 0;
                return line;
            case kStoragePath: config.storage_path = optarg; break;
            case kStorageBackend: config.storage_backend = optarg; break;
            case kNoStorage: config.storage_enabled = false; break;
            case kNfs: config.nfs_enabled = true; break;
            case kNfsPort: config.nfs_port = std::stoi(optarg); break;
            case kAgentStorage: config.agent_storage_enabled = true; break;
            case kMaxConnections: config.max_connections = std::stoi(optarg); break;
            case kMaxWaitingConnections:
                config.max_waiting_connections = std::stoi(optarg);
                break;
            case kS3Endpoint: config.s3_endpoint = optarg; break;
            case kS3Bucket: config.s3_bucket = optarg; break;
            case kS3Region: config.s3_region = optarg; break;
            case kS3AccessKey: config.s3_access_key = optarg; break;
            case kS3SecretKey: config.s3_secret_key = optarg; break;
            case kGitPath: config.git_path = optarg; break;
            case kNoGit: config.git_enabled = false; break;
            case kModelDir: config.model_dirs.emplace_back(optarg); break;
            case kScienceKeysFile: config.science_keys_file = optarg; break;
            case kScienceProvidersFile: config.science_providers_file = optarg; break;
            case kSandboxes: config.sandboxes_enabled = true; break;
            case kSandboxPath: config.sandbox_path = optarg; break;
            case kAuthMode: config.auth_mode = optarg; break;
            case kTlsCert: config.tls_cert = optarg; break;
            case kTlsKey: config.tls_key = optarg; break;
            case 'V':
                printVersion();
                line.exit_status = 0;
                return line;
            case 'h':
                printUsage(argv[0]);
                line.exit_status = 0;
                return line;
            default:
                printUsage(argv[0]);
                line.exit_status = 1;
                return line;
        }
    }
    if (std::string problem = configurationProblem(config); !problem.empty()) {
        std::cerr << "Invalid configuration: " << problem << std::endl;
        line.exit_status = 1;
    }
    return line;
}

std::string configurationProblem(const DataDaemonConfig& config) {
    // htons() would silently wrap a port above 65535 onto another one.
    if (config.port < 1 || config.port > 65535) return "port must be between 1 and 65535";
    if (config.nfs_port < 1 || config.nfs_port > 65535)
        return "nfs_port must be between 1 and 65535";
    if (config.max_connections < 1) return "max_connections must be at least 1";
    if (config.max_waiting_connections < 1) return "max_waiting_connections must be at least 1";
    if (config.sandbox_timeout_seconds < 1 || config.sandbox_max_timeout_seconds < 1)
        return "sandbox time limits must be at least 1 second";
    if (config.sandbox_memory_bytes < (16LL << 20)) return "sandbox_memory_bytes must be at least 16 MiB";
    if (config.sandbox_max_processes < 1 || config.sandbox_max_concurrent < 1)
        return "sandbox_max_processes and sandbox_max_concurrent must be at least 1";
    if (config.sandbox_output_bytes < 0) return "sandbox_output_bytes must not be negative";
    if (config.auth_mode != "off" && config.auth_mode != "keys") return "auth_mode must be \"off\" or \"keys\"";
    if (config.tls_cert.empty() != config.tls_key.empty())
        return "tls_cert and tls_key must be set together";
    return {};
}

void printVersion() { std::cout << "vostra-datad " << kProgramVersion << std::endl; }

void printBanner() {
    std::cout << "╔══════════════════════════════════════════╗\n"
                 "║      Vostra Data Worker (vostra-datad)   ║\n"
                 "╚══════════════════════════════════════════╝\n"
              << "  Version: " << kProgramVersion << "\n"
              << std::endl;
}

void printUsage(const char* argv0) {
    std::cout << "Usage: " << argv0 << " [OPTIONS]\n"
              << "\n"
                 "Options:\n"
                 "  -c, --controller URL    Controller URL for registration\n"
                 "  -p, --port PORT         Listen port (default: 8892)\n"
                 "  -b, --bind ADDRESS      Bind address (default: 0.0.0.0)\n"
                 "  -n, --name NAME         Daemon name\n"
                 "  -d, --daemon            Run as background daemon\n"
                 "  -l, --label LABEL       Add node label (can be repeated)\n"
                 "  --config FILE           Load configuration from JSON file\n"
                 "  --add-source JSON       Add data source on startup\n"
                 "  --data-dir DIR          Data directory for persistence\n"
                 "  --log-file FILE         Log file path\n"
                 "  --auth-mode MODE        off (default) or keys: require API keys\n"
                 "  --tls-cert FILE         Serve HTTPS with this certificate chain (PEM)\n"
                 "  --tls-key FILE          ... and this private key (PEM)\n"
                 "  --heartbeat MS          Heartbeat interval in milliseconds\n"
                 "  --list-connectors       List available database connectors\n"
                 "  --max-connections N     Simultaneous client connections (default: 512)\n"
                 "  --max-waiting-connections N\n"
                 "                          Connections still sending their request (default: 10000)\n"
                 "\n"
                 "Storage Options:\n"
                 "  --storage-path PATH     Storage base path (default: /var/lib/vostra/storage)\n"
                 "  --storage-backend TYPE  Storage backend: filesystem, s3 (default: filesystem)\n"
                 "  --s3-endpoint URL       S3 endpoint (default: AWS in the region)\n"
                 "  --s3-bucket NAME        S3 bucket (required for s3)\n"
                 "  --s3-region REGION      S3 region (default: AWS_REGION or us-east-1)\n"
                 "  --s3-access-key KEY     S3 access key (default: AWS_ACCESS_KEY_ID)\n"
                 "  --s3-secret-key SECRET  S3 secret key (default: AWS_SECRET_ACCESS_KEY)\n"
                 "  --no-storage            Disable storage service\n"
                 "  --git-path PATH         Git working copies (default: /var/lib/vostra/git)\n"
                 "  --no-git                Disable git repository storage\n"
                 "  --model-dir DIR         Also scan DIR for model files (repeatable)\n"
                 "  --science-keys-file FILE\n"
                 "                          Science API keys (default: ~/.config/vostra/science_api_keys.json)\n"
                 "  --science-providers-file FILE\n"
                 "                          Custom science providers (default: beside the keys file)\n"
                 "  --sandboxes             Run sandboxes and pipelines (needs bubblewrap)\n"
                 "  --sandbox-path PATH     Pipeline checkouts (default: /var/lib/vostra/sandboxes)\n"
                 "  --nfs                   Enable NFS server\n"
                 "  --nfs-port PORT         NFS port (default: 2049)\n"
                 "  --agent-storage         Enable unified agent storage\n"
                 "  -V, --version           Show version\n"
                 "  -h, --help              Show this help message\n"
                 "\n"
                 "Examples:\n"
                 "  # Start with controller registration\n"
              << "  " << argv0 << " -c http://controller:8880\n"
              << "\n  # Start standalone with custom storage path\n"
              << "  " << argv0 << " --storage-path /data/vostra\n"
              << "\n  # Start with NFS enabled\n"
              << "  " << argv0 << " --nfs --storage-path /data/vostra\n"
              << "\n  # Add SQLite source on startup\n"
              << "  " << argv0
              << " --add-source '{\"id\":\"local\",\"type\":\"sqlite\",\"path\":\"/data/local.db\"}'\n"
              << "\n  # Add DB2 source with labels\n"
              << "  " << argv0
              << " -l db2 -l prod --add-source "
                 "'{\"id\":\"db2prod\",\"type\":\"db2\",\"host\":\"db2.example.com\","
                 "\"database\":\"PROD\"}'\n"
              << std::flush;
}

void printConnectors() {
    struct Entry {
        ConnectorType type;
        const char* note;
        const char* missing;  // shown when the build lacks it
    };
    static constexpr Entry kConnectors[] = {
        {ConnectorType::SQLite, " (built-in, always available)", nullptr},
        {ConnectorType::PostgreSQL, " (libpq)", nullptr},
        {ConnectorType::MySQL, " (libmysqlclient)", nullptr},
        {ConnectorType::DB2_ODBC, " (unixODBC)", " (requires unixODBC-dev)"},
        {ConnectorType::DB2_CLI, " (IBM DB2 CLI)", " (requires IBM DB2 client)"},
    };
    std::cout << "Available database connectors:\n";
    for (const Entry& entry : kConnectors)
        if (DataConnectorFactory::isAvailable(entry.type))
            std::cout << "  - " << connectorTypeName(entry.type) << entry.note << "\n";
    std::cout << "Not available (requires recompilation):\n";
    for (const Entry& entry : kConnectors)
        if (!DataConnectorFactory::isAvailable(entry.type))
            std::cout << "  - " << connectorTypeName(entry.type) << entry.missing << "\n";
    std::cout << std::flush;
}

void printConfiguration(const DataDaemonConfig& config) {
    std::cout << "Configuration:\n"
              << "  Controller: "
              << (config.controller_url.empty() ? "(standalone)" : config.controller_url) << "\n"
              << "  Bind:       " << config.bind_address << ":" << config.port << "\n"
              << "  Daemon ID:  " << (config.daemon_id.empty() ? "(auto)" : config.daemon_id)
              << "\n"
              << "  Storage:    " << (config.storage_enabled ? "enabled" : "disabled") << "\n";
    if (config.storage_enabled) {
        std::cout << "  Backend:    " << config.storage_backend << "\n"
                  << "  Path:       " << config.storage_path << "\n";
        // The endpoint and bucket only: the key pair stays out of every output.
        if (storageBackendTypeFromName(config.storage_backend) == StorageBackendType::S3)
            std::cout << "  S3:         " << (config.s3_endpoint.empty() ? "(AWS)" : config.s3_endpoint)
                      << " bucket " << config.s3_bucket << "\n";
    }
    std::cout << "  NFS:        ";
    if (config.nfs_enabled)
        std::cout << "enabled (:" << config.nfs_port << ")\n";
    else
        std::cout << "disabled\n";
    std::cout << std::flush;
}

}  // namespace vostra::data
