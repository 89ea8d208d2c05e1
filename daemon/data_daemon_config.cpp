#include "daemon/data_daemon_config.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "common/json_fields.h"

namespace vostra::data {

DataDaemonConfig DataDaemonConfig::fromJson(const nlohmann::json& json) {
    DataDaemonConfig c;
    readField(json, "daemon_id", c.daemon_id);
    readField(json, "daemon_name", c.daemon_name);
    readField(json, "controller_url", c.controller_url);
    readField(json, "api_key", c.api_key);
    readField(json, "bind_address", c.bind_address);
    readField(json, "port", c.port);
    readField(json, "heartbeat_interval_ms", c.heartbeat_interval_ms);
    readField(json, "metrics_interval_ms", c.metrics_interval_ms);
    readField(json, "auto_register", c.auto_register);
    readField(json, "data_dir", c.data_dir);
    readField(json, "log_file", c.log_file);
    readField(json, "tls_cert", c.tls_cert);
    readField(json, "tls_key", c.tls_key);
    readField(json, "labels", c.labels);
    readField(json, "storage_enabled", c.storage_enabled);
    readField(json, "storage_backend", c.storage_backend);
    readField(json, "storage_path", c.storage_path);
    readField(json, "storage_fsync", c.storage_fsync);
    readField(json, "s3_endpoint", c.s3_endpoint);
    readField(json, "s3_bucket", c.s3_bucket);
    readField(json, "s3_region", c.s3_region);
    readField(json, "s3_access_key", c.s3_access_key);
    readField(json, "s3_secret_key", c.s3_secret_key);
    readField(json, "nfs_enabled", c.nfs_enabled);
    readField(json, "nfs_port", c.nfs_port);
    readField(json, "ganesha_conf_path", c.ganesha_conf_path);
    readField(json, "nfs_bind_address", c.nfs_bind_address);
    readField(json, "nfs_export_path", c.nfs_export_path);
    readField(json, "nfs_allowed_networks", c.nfs_allowed_networks);
    readField(json, "nfs_read_only", c.nfs_read_only);
    readField(json, "nfs_root_squash", c.nfs_root_squash);
    readField(json, "nfs_anonymous_uid", c.nfs_anonymous_uid);
    readField(json, "nfs_anonymous_gid", c.nfs_anonymous_gid);
    readField(json, "nfs_max_connections", c.nfs_max_connections);
    readField(json, "agent_storage_enabled", c.agent_storage_enabled);
    readField(json, "agent_storage_source", c.agent_storage_source);
    readField(json, "vector_enabled", c.vector_enabled);
    readField(json, "vector_path", c.vector_path);
    readField(json, "embedding_url", c.embedding_url);
    readField(json, "embedding_model", c.embedding_model);
    readField(json, "embedding_dimension", c.embedding_dimension);
    readField(json, "config_id", c.config_id);
    readField(json, "config_timestamp", c.config_timestamp);
    readField(json, "max_connections", c.max_connections);
    readField(json, "max_waiting_connections", c.max_waiting_connections);
    readField(json, "git_enabled", c.git_enabled);
    readField(json, "git_path", c.git_path);
    readField(json, "forges_file", c.forges_file);
    readField(json, "git_blocked_domains", c.git_blocked_domains);
    readField(json, "git_max_repos_per_tenant", c.git_max_repos_per_tenant);
    readField(json, "git_max_storage_per_tenant", c.git_max_storage_per_tenant);
    readField(json, "git_auto_sync_interval_minutes", c.git_auto_sync_interval_minutes);
    readField(json, "git_clone_timeout_seconds", c.git_clone_timeout_seconds);
    readField(json, "model_dirs", c.model_dirs);
    readField(json, "models_registry_file", c.models_registry_file);
    readField(json, "agent_definitions_dir", c.agent_definitions_dir);
    readField(json, "science_enabled", c.science_enabled);
    readField(json, "science_keys_file", c.science_keys_file);
    readField(json, "science_providers_file", c.science_providers_file);
    readField(json, "sandboxes_enabled", c.sandboxes_enabled);
    readField(json, "sandbox_path", c.sandbox_path);
    readField(json, "sandbox_bwrap_path", c.sandbox_bwrap_path);
    readField(json, "sandbox_allow_network", c.sandbox_allow_network);
    readField(json, "sandbox_timeout_seconds", c.sandbox_timeout_seconds);
    readField(json, "sandbox_max_timeout_seconds", c.sandbox_max_timeout_seconds);
    readField(json, "sandbox_memory_bytes", c.sandbox_memory_bytes);
    readField(json, "sandbox_max_processes", c.sandbox_max_processes);
    readField(json, "sandbox_output_bytes", c.sandbox_output_bytes);
    readField(json, "sandbox_max_concurrent", c.sandbox_max_concurrent);
    readField(json, "auth_mode", c.auth_mode);
    readField(json, "admin_api_keys", c.admin_api_keys);
    readField(json, "admin_api_keys_file", c.admin_api_keys_file);
    readField(json, "tenant_keys_file", c.tenant_keys_file);
    readField(json, "sqlite_roots", c.sqlite_roots);
    return c;
}

DataDaemonConfig withS3Environment(DataDaemonConfig config) {
    auto fill = [](std::string& field, const char* variable) {
        if (!field.empty()) return;
        if (const char* value = std::getenv(variable)) field = value;
    };
    fill(config.s3_access_key, "AWS_ACCESS_KEY_ID");
    fill(config.s3_secret_key, "AWS_SECRET_ACCESS_KEY");
    fill(config.s3_region, "AWS_REGION");
    return config;
}

}  // namespace vostra::data
