// GaneshaConfigGenerator: the text factory of the NFS subsystem. It turns
// the NFS records into the main NFS-Ganesha configuration, a systemd unit
// for Ganesha, and the mount and automount units with which another host
// mounts a worker's export; checks a configuration for consistency; derives
// one export per tenant; and drives a running Ganesha over D-Bus (add or
// remove one export, reload). Where files are written and when is the NFS
// service's business; this class writes only the temporary file of a
// dynamic export.
//
// Static operations, no state: callable from any thread. Rendering never
// fails (callers validate before writing); the D-Bus and shell operations
// block until their command ends and report only through its exit status.
// Commands carry only numbers, never a text from a record, so no field can
// run a command.
#pragma once

#include <string>
#include <vector>

#include "nfs/ganesha_records.h"

namespace vostra::data {

class StorageService;

class GaneshaConfigGenerator {
public:
    GaneshaConfigGenerator() = delete;

    // The whole "ganesha.conf": head, core and NFSv4 blocks, fixed
    // defaults, logging, cache and backend blocks, the exports, and the
    // RADOS block when clustered with peers.
    static std::string generateGaneshaConf(const NFSConfiguration& config);
    static std::string generateCoreParams(const GaneshaGlobalConfig& global);
    static std::string generateNFSv4Block(const GaneshaGlobalConfig& global);
    static std::string generateExportBlock(const GaneshaExportConfig& export_config);
    // A comment head with the count, then every EXPORT block.
    static std::string generateExportsConf(const std::vector<GaneshaExportConfig>& exports);
    static std::string generateSystemdService(const NFSConfiguration& config);
    // A mount unit followed by an automount unit.
    static std::string generateMountUnit(const RemoteDataWorkerMount& mount);
    // "rw,soft,timeo=300,retrans=3,rsize=1048576,wsize=1048576,noatime,sync"
    // for the defaults.
    static std::string generateMountOptions(const RemoteDataWorkerMount& mount);
    // The unit name of a mount point: one leading "/" dropped, every other
    // "/" made "-" (/mnt/data/w2 gives mnt-data-w2).
    static std::string mountUnitName(const std::string& mount_point);

    // False with the first problem in `error`: ports, workers, then each
    // export (duplicate id, duplicate pseudo path, empty path, pseudo path
    // not absolute), then each remote mount (empty host, mount point not
    // absolute).
    static bool validateConfig(const NFSConfiguration& config, std::string& error);

    // A root export of `base_path` (id 1, pseudo path "/") and one export
    // per tenant of `storage` (ids from 100, in the service's order), each
    // with the client rules `clients`.
    static std::vector<GaneshaExportConfig> generateExportsFromTenants(
        const StorageService& storage, const std::string& base_path,
        const std::vector<GaneshaClientConfig>& clients);

    // Ganesha over D-Bus: true when the command succeeded.
    static bool addExportDynamic(const GaneshaExportConfig& export_config);
    static bool removeExportDynamic(int export_id);
    // A D-Bus reload, else SIGHUP to ganesha.nfsd.
    static bool reloadConfig();

    static bool isGaneshaInstalled();
    // "4.3" or "4.3.1" as ganesha.nfsd prints it; empty when unknown.
    static std::string getGaneshaVersion();
};

}  // namespace vostra::data
