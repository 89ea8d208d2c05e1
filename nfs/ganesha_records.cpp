#include "nfs/ganesha_records.h"

#include "common/json_fields.h"
#include "nfs/ganesha_config_generator.h"

namespace vostra::data {
namespace {

// A list of records under `key`, each read with its fromJson.
template <typename Record>
void readRecords(const nlohmann::json& json, const char* key, std::vector<Record>& records) {
    auto it = json.find(key);
    if (it == json.end()) return;
    records.clear();
    for (const nlohmann::json& item : it->template get<std::vector<nlohmann::json>>())
        records.push_back(Record::fromJson(item));
}

}  // namespace

GaneshaGlobalConfig GaneshaGlobalConfig::fromJson(const nlohmann::json& json) {
    GaneshaGlobalConfig c;
    if (!json.is_object()) return c;
    readField(json, "nfs_port", c.nfs_port);
    readField(json, "rquota_port", c.rquota_port);
    readField(json, "mount_port", c.mount_port);
    readField(json, "nlm_port", c.nlm_port);
    readField(json, "clustered", c.clustered);
    readField(json, "cluster_name", c.cluster_name);
    readField(json, "cluster_peers", c.cluster_peers);
    readField(json, "domain_name", c.domain_name);
    readField(json, "lease_lifetime", c.lease_lifetime);
    readField(json, "grace_period", c.grace_period);
    readField(json, "num_workers", c.num_workers);
    readField(json, "max_requests", c.max_requests);
    readField(json, "recv_hiwat", c.recv_hiwat);
    readField(json, "send_hiwat", c.send_hiwat);
    readField(json, "entries_lru_size", c.entries_lru_size);
    readField(json, "chunks_lru_size", c.chunks_lru_size);
    readField(json, "fh_cache_enable", c.fh_cache_enable);
    readField(json, "fh_cache_size", c.fh_cache_size);
    readField(json, "log_file", c.log_file);
    readField(json, "log_level", c.log_level);
    readField(json, "dbus_enabled", c.dbus_enabled);
    readField(json, "dbus_name", c.dbus_name);
    return c;
}

nlohmann::json GaneshaGlobalConfig::toJson() const {
    return {{"nfs_port", nfs_port},
            {"rquota_port", rquota_port},
            {"mount_port", mount_port},
            {"nlm_port", nlm_port},
            {"clustered", clustered},
            {"cluster_name", cluster_name},
            {"cluster_peers", cluster_peers},
            {"domain_name", domain_name},
            {"lease_lifetime", lease_lifetime},
            {"grace_period", grace_period},
            {"num_workers", num_workers},
            {"max_requests", max_requests},
            {"recv_hiwat", recv_hiwat},
            {"send_hiwat", send_hiwat},
            {"entries_lru_size", entries_lru_size},
            {"chunks_lru_size", chunks_lru_size},
            {"fh_cache_enable", fh_cache_enable},
            {"fh_cache_size", fh_cache_size},
            {"log_file", log_file},
            {"log_level", log_level},
            {"dbus_enabled", dbus_enabled},
            {"dbus_name", dbus_name}};
}

GaneshaClientConfig GaneshaClientConfig::fromJson(const nlohmann::json& json) {
    GaneshaClientConfig c;
    if (!json.is_object()) return c;
    readField(json, "clients", c.clients);
    readField(json, "access_type", c.access_type);
    readField(json, "root_squash", c.root_squash);
    readField(json, "all_squash", c.all_squash);
    readField(json, "anonymous_uid", c.anonymous_uid);
    readField(json, "anonymous_gid", c.anonymous_gid);
    readField(json, "protocols", c.protocols);
    return c;
}

nlohmann::json GaneshaClientConfig::toJson() const {
    return {{"clients", clients},          {"access_type", access_type},
            {"root_squash", root_squash},  {"all_squash", all_squash},
            {"anonymous_uid", anonymous_uid}, {"anonymous_gid", anonymous_gid},
            {"protocols", protocols}};
}

GaneshaExportConfig GaneshaExportConfig::fromJson(const nlohmann::json& json) {
    GaneshaExportConfig e;
    if (!json.is_object()) return e;
    readField(json, "export_id", e.export_id);
    readField(json, "path", e.path);
    readField(json, "pseudo_path", e.pseudo_path);
    readField(json, "tag", e.tag);
    readField(json, "tenant_id", e.tenant_id);
    readRecords(json, "clients", e.clients);
    readField(json, "fsal_type", e.fsal_type);
    readField(json, "fsal_name", e.fsal_name);
    readField(json, "nfs_v3", e.nfs_v3);
    readField(json, "nfs_v4", e.nfs_v4);
    readField(json, "nfs_v4_1", e.nfs_v4_1);
    readField(json, "nfs_v4_2", e.nfs_v4_2);
    readField(json, "max_read_size", e.max_read_size);
    readField(json, "max_write_size", e.max_write_size);
    readField(json, "preferred_read_size", e.preferred_read_size);
    readField(json, "preferred_write_size", e.preferred_write_size);
    readField(json, "security_flavors", e.security_flavors);
    return e;
}

nlohmann::json GaneshaExportConfig::toJson() const {
    return {{"export_id", export_id},
            {"path", path},
            {"pseudo_path", pseudo_path},
            {"tag", tag},
            {"tenant_id", tenant_id},
            {"clients", toJsonArray(clients)},
            {"fsal_type", fsal_type},
            {"fsal_name", fsal_name},
            {"nfs_v3", nfs_v3},
            {"nfs_v4", nfs_v4},
            {"nfs_v4_1", nfs_v4_1},
            {"nfs_v4_2", nfs_v4_2},
            {"max_read_size", max_read_size},
            {"max_write_size", max_write_size},
            {"preferred_read_size", preferred_read_size},
            {"preferred_write_size", preferred_write_size},
            {"security_flavors", security_flavors}};
}

RemoteDataWorkerMount RemoteDataWorkerMount::fromJson(const nlohmann::json& json) {
    RemoteDataWorkerMount m;
    if (!json.is_object()) return m;
    readField(json, "id", m.id);
    readField(json, "name", m.name);
    readField(json, "remote_host", m.remote_host);
    readField(json, "remote_port", m.remote_port);
    readField(json, "remote_path", m.remote_path);
    readField(json, "local_mount_point", m.local_mount_point);
    readField(json, "read_only", m.read_only);
    readField(json, "soft_mount", m.soft_mount);
    readField(json, "timeout_seconds", m.timeout_seconds);
    readField(json, "retrans", m.retrans);
    readField(json, "rsize", m.rsize);
    readField(json, "wsize", m.wsize);
    readField(json, "noatime", m.noatime);
    readField(json, "async", m.async);
    readField(json, "auto_mount", m.auto_mount);
    readField(json, "retry_interval_seconds", m.retry_interval_seconds);
    return m;
}

nlohmann::json RemoteDataWorkerMount::toJson() const {
    return {{"id", id},
            {"name", name},
            {"remote_host", remote_host},
            {"remote_port", remote_port},
            {"remote_path", remote_path},
            {"local_mount_point", local_mount_point},
            {"read_only", read_only},
            {"soft_mount", soft_mount},
            {"timeout_seconds", timeout_seconds},
            {"retrans", retrans},
            {"rsize", rsize},
            {"wsize", wsize},
            {"noatime", noatime},
            {"async", async},
            {"auto_mount", auto_mount},
            {"retry_interval_seconds", retry_interval_seconds}};
}

std::string RemoteDataWorkerMount::getMountOptions() const {
    return GaneshaConfigGenerator::generateMountOptions(*this);
}

std::string RemoteDataWorkerMount::generateMountUnit() const {
    return GaneshaConfigGenerator::generateMountUnit(*this);
}

NFSConfiguration NFSConfiguration::fromJson(const nlohmann::json& json) {
    NFSConfiguration c;
    if (!json.is_object()) return c;
    readField(json, "enabled", c.enabled);
    if (auto it = json.find("global"); it != json.end()) c.global = GaneshaGlobalConfig::fromJson(*it);
    readRecords(json, "exports", c.exports);
    readRecords(json, "remote_mounts", c.remote_mounts);
    readField(json, "cluster", c.cluster);
    return c;
}

nlohmann::json NFSConfiguration::toJson() const {
    return {{"enabled", enabled},
            {"global", global.toJson()},
            {"exports", toJsonArray(exports)},
            {"remote_mounts", toJsonArray(remote_mounts)},
            {"cluster", cluster}};
}

}  // namespace vostra::data
