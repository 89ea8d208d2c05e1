// NFSServer: the daemon's small built-in NFS responder, started by "--nfs".
// It serves one folder (the storage root unless configured otherwise) to
// NFSv3 clients over TCP on one port, answering MOUNT v3 and NFS v3 itself
// (no portmapper: clients name the port for both), and writes the classic
// exports file and a mount unit for hosts that use kernel NFS instead.
//
// One accept thread waits with select; each admitted connection is served
// on a thread of its own until the client goes, a read fails or stop().
// Records are ONC RPC over TCP record marking, fragments of at most 65536
// bytes; a larger one ends the connection.
//
// Owned by DataDaemon; borrows the StorageService it lists tenants from,
// which must outlive it. Thread-safe; stop() waits for connection threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>
#include <vector>

namespace vostra::data {

class NfsProcedures;
class StorageService;

struct NFSServerConfig {
    int32_t port = 2049;
    std::string bind_address = "0.0.0.0";
    std::string export_path;  // empty: the storage service's base path
    // Empty: everyone. An entry is an address, or a network whose text
    // before its last "." is matched as a prefix (the length after "/" is
    // not looked at).
    std::vector<std::string> allowed_networks;
    bool read_only = false;
    bool root_squash = true;
    uint32_t anonymous_uid = 65534;
    uint32_t anonymous_gid = 65534;
    int32_t max_connections = 64;
};

struct NFSConnection {
    std::string address;
    int64_t started_ms = 0;  // since the Unix epoch
    uint64_t requests = 0;
};

class NFSServer {
public:
    static constexpr uint32_t kMaxFragment = 65536;

    // `storage` may be null (no tenants to list).
    explicit NFSServer(const StorageService* storage, std::string storage_base_path);
    ~NFSServer();
    NFSServer(const NFSServer&) = delete;
    NFSServer& operator=(const NFSServer&) = delete;

    bool initialize(const NFSServerConfig& config);
    // Binds and starts the accept thread; false with a line on standard
    // error when the port cannot be had.
    bool start();
    void stop();
    bool isRunning() const { return running_.load(); }
    int port() const { return bound_port_; }

    // Whether a kernel or Ganesha NFS service is there to do the real work.
    static bool isAvailable();
    static std::string getAvailabilityMessage();
    bool isNetworkAllowed(const std::string& address) const;

    std::vector<NFSConnection> getConnections() const;
    // The /etc/exports lines for the tenants' folders and the export root.
    std::string generateExportsFile() const;
    // A systemd mount unit for the export root of `host` at `mount_point`.
    std::string generateMountUnit(const std::string& host, const std::string& mount_point) const;
    // "active_connections", "total_connections", "total_reads", … .
    nlohmann::json metricsJson() const;

    // One whole record, answered: the reply body, or empty when the record
    // is to be dropped. Public for tests.
    std::string answer(std::string_view record);

private:
    void serverLoop();
    void handleConnection(int fd, const std::string& address);

    const StorageService* storage_;
    const std::string storage_base_path_;
    NFSServerConfig config_;
    bool initialized_ = false;
    std::unique_ptr<NfsProcedures> procedures_;

    std::atomic<bool> running_{false};
    int listen_fd_ = -1;
    int bound_port_ = 0;
    std::thread accept_thread_;

    mutable std::mutex connections_mutex_;
    std::condition_variable connections_done_;
    std::map<int, NFSConnection> connections_;

    std::atomic<uint64_t> total_connections_{0};
    std::atomic<uint64_t> rejected_connections_{0};
    std::atomic<uint64_t> errors_{0};
};

}  // namespace vostra::data
