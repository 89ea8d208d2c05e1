// The daemon's whole configuration: built by the entry point from defaults,
// an optional JSON file and command-line options, then copied into DataDaemon
// at initialisation. A plain value record; JSON keys equal the field names.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct DataDaemonConfig {
    std::string daemon_id;        // empty: generated at initialisation
    std::string daemon_name;
    std::string controller_url;   // empty: standalone
    std::string api_key;
    std::string bind_address = "0.0.0.0";
    int32_t port = 8892;
    int32_t heartbeat_interval_ms = 30000;
    int32_t metrics_interval_ms = 10000;
    bool auto_register = true;
    std::string data_dir;
    std::string log_file;         // stored only
    // Both set: the server speaks HTTPS only (TLS 1.2 and 1.3).
    std::string tls_cert;
    std::string tls_key;
    std::vector<std::string> labels;
    bool storage_enabled = true;
    std::string storage_backend = "filesystem";
    std::string storage_path = "/var/lib/vostra/storage";
    // Stored files are flushed to disk before they replace the old ones.
    bool storage_fsync = true;
    // The S3 backend's store. Empty credentials and region are taken from
    // AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and AWS_REGION (see
    // withS3Environment); the secret is never printed or answered.
    std::string s3_endpoint;  // empty: the AWS endpoint of the region
    std::string s3_bucket;
    std::string s3_region;    // empty: AWS_REGION, else "us-east-1"
    std::string s3_access_key;
    std::string s3_secret_key;
    bool nfs_enabled = false;
    int32_t nfs_port = 2049;
    // The built-in NFS responder (--nfs): what it serves and to whom.
    std::string nfs_bind_address = "0.0.0.0";
    std::string nfs_export_path;  // empty: storage_path
    std::vector<std::string> nfs_allowed_networks;  // empty: everyone
    bool nfs_read_only = false;
    bool nfs_root_squash = true;
    int32_t nfs_anonymous_uid = 65534;
    int32_t nfs_anonymous_gid = 65534;
    int32_t nfs_max_connections = 64;
    // Where POST /api/v1/nfs/apply writes the generated Ganesha configuration.
    std::string ganesha_conf_path = "/etc/ganesha/ganesha.conf";
    bool agent_storage_enabled = false;
    std::string agent_storage_source;
    bool vector_enabled = false;
    std::string vector_path = "/var/lib/vostra/vectors";
    std::string embedding_url = "http://localhost:11434";
    std::string embedding_model = "nomic-embed-text";
    int32_t embedding_dimension = 768;
    std::string config_id;
    int64_t config_timestamp = 0;
    // Simultaneous client connections; one more is answered 503 at once so a
    // flood cannot exhaust threads or memory.
    int32_t max_connections = 512;
    // Connections still sending their request, held by the event-driven
    // reader at a few hundred bytes each; one more is answered 503.
    int32_t max_waiting_connections = 10000;
    // Git repositories: working copies under git_path (created on the first
    // clone), forge accounts with their tokens in forges_file (mode 0600;
    // empty: "forges.json" in data_dir, else in git_path).
    bool git_enabled = true;
    std::string git_path = "/var/lib/vostra/git";
    std::string forges_file;
    std::vector<std::string> git_blocked_domains;
    int32_t git_max_repos_per_tenant = 100;
    int64_t git_max_storage_per_tenant = 10LL << 30;
    int32_t git_auto_sync_interval_minutes = 60;
    int32_t git_clone_timeout_seconds = 600;
    // Model files: folders walked besides the usual ones and the storage's
    // "models" folder; the registry file (empty: "models_registry.json" in
    // data_dir, else in the storage's "system" folder).
    std::vector<std::string> model_dirs;
    std::string models_registry_file;
    // Agent definition files imported by POST /api/v1/data/agents/sync
    // (empty: "agents" in data_dir).
    std::string agent_definitions_dir;
    // The scientific data gateway: API keys in science_keys_file (mode
    // 0600; empty: "science_api_keys.json" in $HOME/.config/vostra, else
    // /etc/vostra), custom and overridden providers in
    // science_providers_file (empty: "science_providers.json" beside it).
    bool science_enabled = true;
    std::string science_keys_file;
    std::string science_providers_file;
    // Sandboxes, pipelines and triage: commands run under bubblewrap over a
    // tenant's workspace or a checkout (pipeline checkouts under
    // sandbox_path). Off unless the operator turns them on.
    bool sandboxes_enabled = false;
    std::string sandbox_path = "/var/lib/vostra/sandboxes";
    std::string sandbox_bwrap_path = "bwrap";
    bool sandbox_allow_network = false;
    int32_t sandbox_timeout_seconds = 60;
    int32_t sandbox_max_timeout_seconds = 3600;
    int64_t sandbox_memory_bytes = 512LL << 20;
    int32_t sandbox_max_processes = 64;
    int64_t sandbox_output_bytes = 1LL << 20;
    int32_t sandbox_max_concurrent = 4;
    // "off": every route is open (the default); "keys": every request but
    // health, the root redirect and the dashboard pages needs an admin key
    // or a key of its tenant. Tenant keys live in tenant_keys_file (mode
    // 0600, salted hashes; empty: "tenant_keys.json" in data_dir, else in
    // /var/lib/vostra).
    std::string auth_mode = "off";
    std::vector<std::string> admin_api_keys;
    std::string admin_api_keys_file;
    std::string tenant_keys_file;
    // Folders SQLite sources must lie in (after following links); empty:
    // anywhere, or data_dir in "keys" mode.
    std::vector<std::string> sqlite_roots;

    // Starts from the defaults and assigns only the keys present in `json`.
    // A present key of the wrong JSON type throws nlohmann::json::type_error.
    static DataDaemonConfig fromJson(const nlohmann::json& json);
};

// `config` with its empty S3 credentials and region filled from the
// standard AWS environment variables, when they are set.
DataDaemonConfig withS3Environment(DataDaemonConfig config);

}  // namespace vostra::data
