#include "nfs/ganesha_config_generator.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <set>

#include "storage/storage_service.h"

namespace vostra::data {
namespace {

// Lines of generated text: each ends in one line feed, four blanks per level.
class Text {
public:
    Text& line(std::string_view text = {}, int level = 0) {
        out_.append(static_cast<std::size_t>(4 * level), ' ');
        out_.append(text);
        out_ += '\n';
        return *this;
    }
    // "<key> = <value>;" at `level`.
    template <typename Value>
    Text& key(std::string_view name, const Value& value, int level = 1) {
        std::string text(name);
        text += " = ";
        if constexpr (std::is_arithmetic_v<Value>)
            text += std::to_string(value);
        else
            text += value;
        text += ';';
        return line(text, level);
    }
    Text& append(const std::string& text) {
        out_ += text;
        return *this;
    }
    std::string str() && { return std::move(out_); }

private:
    std::string out_;
};

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string joined(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (const std::string& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

// Runs `command` through the shell; true when it exited with status 0.
bool succeeds(const std::string& command) { return std::system(command.c_str()) == 0; }

constexpr const char* kExportManager =
    "dbus-send --system --print-reply --dest=org.ganesha.nfsd --type=method_call "
    "/org/ganesha/nfsd/ExportMgr org.ganesha.nfsd.exportmgr.";

}  // namespace

std::string GaneshaConfigGenerator::generateCoreParams(const GaneshaGlobalConfig& g) {
    Text text;
    text.line("NFS_CORE_PARAM {")
        .key("NFS_Port", g.nfs_port)
        .key("MNT_Port", std::max(g.mount_port, 0))
        .key("NLM_Port", std::max(g.nlm_port, 0))
        .key("Rquota_Port", g.rquota_port)
        .line("NFS_Protocols = 3,4;", 1)
        .line("Bind_Addr = 0.0.0.0;", 1)
        .key("Nb_Worker", g.num_workers)
        .line("Enable_NLM = true;", 1)
        .line("Enable_RQUOTA = true;", 1)
        .line("Manage_Gids_Expiration = 30;", 1)
        .key("max_recv_buffer_size", g.recv_hiwat)
        .key("max_send_buffer_size", g.send_hiwat)
        .line("}");
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateNFSv4Block(const GaneshaGlobalConfig& g) {
    Text text;
    text.line("NFSV4 {")
        .line("Minor_Versions = 1, 2;", 1)
        .key("DomainName", g.domain_name)
        .key("Lease_Lifetime", g.lease_lifetime)
        .key("Grace_Period", g.grace_period)
        .line("IdmapConf = /etc/idmapd.conf;", 1)
        .line("Allow_Numeric_Owners = true;", 1)
        .line("Only_Numeric_Owners = false;", 1)
        .line("}");
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateExportBlock(const GaneshaExportConfig& e) {
    Text text;
    text.line("EXPORT {")
        .key("Export_Id", e.export_id)
        .key("Path", quoted(e.path))
        .key("Pseudo", quoted(e.pseudo_path));
    if (!e.tag.empty()) text.key("Tag", quoted(e.tag));
    std::vector<std::string> protocols;
    if (e.nfs_v3) protocols.emplace_back("3");
    if (e.nfs_v4) protocols.emplace_back("4");
    if (protocols.empty()) protocols.emplace_back("4");  // never no protocol at all
    text.key("Protocols", joined(protocols, ","))
        .line("Transports = TCP;", 1)
        .line("FSAL {", 1)
        .key("Name", e.fsal_name, 2)
        .line("}", 1)
        .key("MaxRead", e.max_read_size)
        .key("MaxWrite", e.max_write_size)
        .key("PrefRead", e.preferred_read_size)
        .key("PrefWrite", e.preferred_write_size)
        .key("SecType", joined(e.security_flavors, ","));
    for (const GaneshaClientConfig& client : e.clients) {
        // Root squash wins over all squash.
        const char* squash = client.root_squash  ? "Root_Squash"
                             : client.all_squash ? "All_Squash"
                                                 : "No_Root_Squash";
        text.line("CLIENT {", 1)
            .key("Clients", client.clients, 2)
            .key("Access_Type", client.access_type, 2)
            .key("Squash", std::string(squash), 2)
            .key("Anonymous_Uid", client.anonymous_uid, 2)
            .key("Anonymous_Gid", client.anonymous_gid, 2)
            .line("}", 1);
    }
    if (e.clients.empty()) {
        text.line("CLIENT {", 1)
            .line("Clients = *;", 2)
            .line("Access_Type = RW;", 2)
            .line("Squash = Root_Squash;", 2)
            .line("}", 1);
    }
    text.line("}");
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateExportsConf(
    const std::vector<GaneshaExportConfig>& exports) {
    Text text;
    text.line("# Export configurations")
        .line("# " + std::to_string(exports.size()) + " exports defined")
        .line();
    for (const GaneshaExportConfig& e : exports)
        text.append(generateExportBlock(e)).line();
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateGaneshaConf(const NFSConfiguration& config) {
    const GaneshaGlobalConfig& g = config.global;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    Text text;
    text.line("# NFS-Ganesha configuration generated by Vostra Data Worker")
        .line("# Do not edit manually - regenerate via dashboard or API")
        .line("#")
        .line("# Generated at: " + std::to_string(now))
        .line()
        .append(generateCoreParams(g))
        .line()
        .append(generateNFSv4Block(g))
        .line()
        .line("EXPORT_DEFAULTS {")
        .line("Access_Type = RW;", 1)
        .line("Squash = Root_Squash;", 1)
        .line("SecType = sys,krb5,krb5i,krb5p;", 1)
        .line("Anonymous_Uid = 65534;", 1)
        .line("Anonymous_Gid = 65534;", 1)
        .line("}")
        .line()
        .line("LOG {")
        .key("Default_log_level", g.log_level)
        .line("Components {", 1)
        .line("FSAL = EVENT;", 2)
        .line("NFS_V4 = EVENT;", 2)
        .line("STATE = EVENT;", 2)
        .line("CACHE_INODE = EVENT;", 2)
        .line("CACHE_INODE_LRU = WARN;", 2)
        .line("NFS_READDIR = WARN;", 2)
        .line("}", 1)
        .line("}")
        .line()
        .line("CACHEINODE {")
        .key("Entries_HWMark", g.entries_lru_size)
        .key("Chunks_HWMark", g.chunks_lru_size)
        .line("FD_HWMark_Percent = 90;", 1)
        .line("FD_LWMark_Percent = 50;", 1)
        .line("Use_Getattr_Directory_Invalidation = true;", 1)
        .line("}")
        .line()
        .line("FSAL {")
        .line("VFS {", 1)
        .line("link_support = true;", 2)
        .line("symlink_support = true;", 2)
        .line("cansettime = true;", 2)
        .line("xattr_access_rights = 0600;", 2)
        .line("}", 1)
        .line("}")
        .line()
        .append(generateExportsConf(config.exports));
    // The peers only switch the block on; their names are not written.
    if (g.clustered && !g.cluster_peers.empty()) {
        text.line("# Cluster configuration")
            .line("RADOS_URLS {")
            .line("Ceph_Conf = /etc/ceph/ceph.conf;", 1)
            .line("UserId = admin;", 1)
            .line("Pool = nfs-ganesha;", 1)
            .line("}")
            .line();
    }
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateSystemdService(const NFSConfiguration& config) {
    Text text;
    text.line("# Vostra NFS-Ganesha service")
        .line("# Generated by vostra-datad")
        .line("[Unit]")
        .line("Description=NFS-Ganesha file server (Vostra Data Worker)")
        .line("Documentation=https://github.com/nfs-ganesha/nfs-ganesha/wiki")
        .line("After=network-online.target rpcbind.service vostra-datad.service")
        .line("Wants=network-online.target rpcbind.service")
        .line()
        .line("[Service]")
        .line("Type=forking")
        .line("ExecStart=/usr/bin/ganesha.nfsd -L /var/log/ganesha/ganesha.log -f "
              "/etc/ganesha/ganesha.conf -N EVENT")
        .line("ExecReload=/bin/kill -HUP $MAINPID")
        .line("PIDFile=/var/run/ganesha/ganesha.pid")
        .line("Restart=on-failure")
        .line("RestartSec=5")
        .line();
    if (config.global.dbus_enabled) {
        text.line("# DBus access for dynamic configuration")
            .line("BusName=" + config.global.dbus_name)
            .line();
    }
    text.line("[Install]").line("WantedBy=multi-user.target");
    return std::move(text).str();
}

std::string GaneshaConfigGenerator::generateMountOptions(const RemoteDataWorkerMount& m) {
    std::string options = m.read_only ? "ro" : "rw";
    options += m.soft_mount ? ",soft" : ",hard";
    // NFS counts its time-out in tenths of a second.
    options += ",timeo=" + std::to_string(static_cast<int64_t>(m.timeout_seconds) * 10);
    options += ",retrans=" + std::to_string(m.retrans);
    options += ",rsize=" + std::to_string(m.rsize);
    options += ",wsize=" + std::to_string(m.wsize);
    if (m.noatime) options += ",noatime";
    options += m.async ? ",async" : ",sync";
    if (m.remote_port != 2049) options += ",port=" + std::to_string(m.remote_port);
    return options;
}

std::string GaneshaConfigGenerator::mountUnitName(const std::string& mount_point) {
    std::string name = mount_point.starts_with('/') ? mount_point.substr(1) : mount_point;
    std::replace(name.begin(), name.end(), '/', '-');
    return name;
}

std::string GaneshaConfigGenerator::generateMountUnit(const RemoteDataWorkerMount& m) {
    const std::string unit = mountUnitName(m.local_mount_point);
    Text text;
    text.line("# Vostra remote data worker mount")
        .line("# Mount: " + m.name + " (" + m.id + ")")
        .line("# Save as: /etc/systemd/system/" + unit + ".mount")
        .line("# Enable: systemctl enable --now " + unit + ".mount")
        .line()
        .line("[Unit]")
        .line("Description=Vostra Remote Data Worker Mount - " + m.name)
        .line("After=network-online.target")
        .line("Wants=network-online.target")
        .line()
        .line("[Mount]")
        .line("What=" + m.remote_host + ":" + m.remote_path)
        .line("Where=" + m.local_mount_point)
        .line("Type=nfs")
        .line("Options=" + generateMountOptions(m))
        .line()
        .line("[Install]")
        .line("WantedBy=multi-user.target")
        .line()
        .line("# Automount unit (optional - for on-demand mounting)")
        .line("# Save as: /etc/systemd/system/" + unit + ".automount")
        .line()
        .line("[Unit]")
        .line("Description=Automount Vostra Remote Data Worker - " + m.name)
        .line("After=network-online.target")
        .line()
        .line("[Automount]")
        .line("Where=" + m.local_mount_point)
        .line("TimeoutIdleSec=600")
        .line()
        .line("[Install]")
        .line("WantedBy=multi-user.target");
    return std::move(text).str();
}

bool GaneshaConfigGenerator::validateConfig(const NFSConfiguration& config, std::string& error) {
    const GaneshaGlobalConfig& g = config.global;
    if (g.nfs_port < 1 || g.nfs_port > 65535) {
        error = "Invalid NFS port: " + std::to_string(g.nfs_port);
        return false;
    }
    if (g.num_workers < 1 || g.num_workers > 256) {
        error = "Invalid number of workers: " + std::to_string(g.num_workers);
        return false;
    }
    std::set<int32_t> ids;
    std::set<std::string> pseudo_paths;
    for (const GaneshaExportConfig& e : config.exports) {
        const std::string id = std::to_string(e.export_id);
        if (!ids.insert(e.export_id).second) {
            error = "Duplicate export ID: " + id;
            return false;
        }
        if (!pseudo_paths.insert(e.pseudo_path).second) {
            error = "Duplicate pseudo path: " + e.pseudo_path;
            return false;
        }
        if (e.path.empty()) {
            error = "Export " + id + " has empty path";
            return false;
        }
        if (!e.pseudo_path.starts_with('/')) {
            error = "Export " + id + " has invalid pseudo path";
            return false;
        }
    }
    for (const RemoteDataWorkerMount& m : config.remote_mounts) {
        if (m.remote_host.empty()) {
            error = "Remote mount " + m.id + " has empty host";
            return false;
        }
        if (!m.local_mount_point.starts_with('/')) {
            error = "Remote mount " + m.id + " has invalid mount point";
            return false;
        }
    }
    return true;
}

std::vector<GaneshaExportConfig> GaneshaConfigGenerator::generateExportsFromTenants(
    const StorageService& storage, const std::string& base_path,
    const std::vector<GaneshaClientConfig>& clients) {
    std::vector<GaneshaExportConfig> exports;
    GaneshaExportConfig root;
    root.export_id = 1;
    root.path = base_path;
    root.pseudo_path = "/";
    root.tag = "root";
    root.clients = clients;
    exports.push_back(root);
    int32_t id = 100;
    for (const TenantConfig& tenant : storage.listTenants()) {
        GaneshaExportConfig e;
        e.export_id = id++;
        e.path = base_path + "/" + tenant.id;
        e.pseudo_path = "/" + tenant.id;
        e.tag = "tenant-" + tenant.id;
        e.tenant_id = tenant.id;
        e.clients = clients;
        exports.push_back(std::move(e));
    }
    return exports;
}

bool GaneshaConfigGenerator::addExportDynamic(const GaneshaExportConfig& e) {
    const std::string id = std::to_string(e.export_id);
    const std::string file = "/tmp/ganesha_export_" + id + ".conf";
    // A fixed name in a shared folder: whatever sits there (a planted link
    // above all) goes, and the file is made new, never followed.
    ::unlink(file.c_str());
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const std::string block = generateExportBlock(e);
    const bool written = ::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
    ::close(fd);
    const bool added = written && succeeds(std::string(kExportManager) + "AddExport string:\"" +
                                           file + "\" string:\"EXPORT(Export_Id=" + id +
                                           ")\" 2>/dev/null");
    ::unlink(file.c_str());
    return added;
}

bool GaneshaConfigGenerator::removeExportDynamic(int export_id) {
    return succeeds(std::string(kExportManager) + "RemoveExport uint16:" +
                    std::to_string(export_id) + " 2>/dev/null");
}

bool GaneshaConfigGenerator::reloadConfig() {
    return succeeds("dbus-send --system --dest=org.ganesha.nfsd --type=method_call "
                    "/org/ganesha/nfsd/admin org.ganesha.nfsd.admin.reload 2>/dev/null") ||
           succeeds("pkill -HUP ganesha.nfsd 2>/dev/null");
}

bool GaneshaConfigGenerator::isGaneshaInstalled() {
    FILE* pipe = popen("which ganesha.nfsd 2>/dev/null", "r");
    if (!pipe) return false;
    char line[256];
    const bool found = fgets(line, sizeof line, pipe) != nullptr;
    pclose(pipe);
    return found;
}

std::string GaneshaConfigGenerator::getGaneshaVersion() {
    FILE* pipe = popen("ganesha.nfsd -v 2>&1", "r");
    if (!pipe) return {};
    std::string output;
    char chunk[256];
    while (std::size_t n = fread(chunk, 1, sizeof chunk, pipe))
        output.append(chunk, n);
    pclose(pipe);
    static const std::regex kVersion("([0-9]+\\.[0-9]+\\.?[0-9]*)");
    std::smatch match;
    return std::regex_search(output, match, kVersion) ? match[1].str() : std::string();
}

}  // namespace vostra::data
