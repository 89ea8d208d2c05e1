// The records of the NFS subsystem: the NFS-Ganesha server-wide settings,
// client rules and exports, mounts of other data workers' exports, and the
// configuration that holds them all (the daemon keeps one, under its NFS
// mutex). Plain copyable values with JSON forms: fromJson reads only the
// keys present (and nothing unless given an object), toJson writes every
// field under the same key. Some fields are kept and returned but never
// rendered (see GaneshaConfigGenerator).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::data {

struct GaneshaGlobalConfig {
    int32_t nfs_port = 2049;
    int32_t rquota_port = 875;
    int32_t mount_port = 0;
    int32_t nlm_port = 0;
    bool clustered = false;
    std::string cluster_name = "vostra-nfs";
    std::vector<std::string> cluster_peers;
    std::string domain_name = "localdomain";
    int32_t lease_lifetime = 90;  // seconds
    int32_t grace_period = 90;    // seconds
    int32_t num_workers = 16;
    int32_t max_requests = 1024;
    int32_t recv_hiwat = 1048576;
    int32_t send_hiwat = 1048576;
    int32_t entries_lru_size = 100000;
    int32_t chunks_lru_size = 10000;
    bool fh_cache_enable = true;
    int32_t fh_cache_size = 100000;
    std::string log_file = "/var/log/ganesha/ganesha.log";
    std::string log_level = "EVENT";
    bool dbus_enabled = true;
    std::string dbus_name = "org.ganesha.nfsd";

    static GaneshaGlobalConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

// One CLIENT block of an export.
struct GaneshaClientConfig {
    std::string clients = "*";  // a host, a CIDR network, a wildcard or a list
    std::string access_type = "RW";
    bool root_squash = true;
    bool all_squash = false;  // only looked at without root_squash
    int32_t anonymous_uid = 65534;
    int32_t anonymous_gid = 65534;
    std::vector<std::string> protocols;  // stored only

    static GaneshaClientConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

struct GaneshaExportConfig {
    int32_t export_id = 0;  // unique within a configuration
    std::string path;        // the directory exported
    std::string pseudo_path; // its place in the NFSv4 pseudo file system
    std::string tag;
    std::string tenant_id;   // empty for the root export
    std::vector<GaneshaClientConfig> clients;
    int32_t fsal_type = 0;   // stored only
    std::string fsal_name = "VFS";
    bool nfs_v3 = true;
    bool nfs_v4 = true;
    bool nfs_v4_1 = true;  // stored only
    bool nfs_v4_2 = true;  // stored only
    uint32_t max_read_size = 1048576;
    uint32_t max_write_size = 1048576;
    uint32_t preferred_read_size = 1048576;
    uint32_t preferred_write_size = 1048576;
    std::vector<std::string> security_flavors = {"sys", "krb5", "krb5i", "krb5p"};

    static GaneshaExportConfig fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

// A mount of another data worker's export on this host.
struct RemoteDataWorkerMount {
    std::string id;
    std::string name;
    std::string remote_host;
    int32_t remote_port = 2049;
    std::string remote_path = "/";
    std::string local_mount_point;  // absolute
    bool read_only = false;
    bool soft_mount = true;
    int32_t timeout_seconds = 30;
    int32_t retrans = 3;
    int32_t rsize = 1048576;
    int32_t wsize = 1048576;
    bool noatime = true;
    bool async = false;
    bool auto_mount = true;  // stored; the automount unit is rendered regardless
    int32_t retry_interval_seconds = 30;

    static RemoteDataWorkerMount fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;

    // GaneshaConfigGenerator's renderings of this mount.
    std::string getMountOptions() const;
    std::string generateMountUnit() const;
};

struct NFSConfiguration {
    bool enabled = false;
    GaneshaGlobalConfig global;
    std::vector<GaneshaExportConfig> exports;          // unique by export_id
    std::vector<RemoteDataWorkerMount> remote_mounts;  // unique by id
    nlohmann::json cluster = nlohmann::json::object(); // carried through as given

    static NFSConfiguration fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

}  // namespace vostra::data
