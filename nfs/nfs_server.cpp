#include "nfs/nfs_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "nfs/nfs_procedures.h"
#include "nfs/rpc_message.h"
#include "storage/storage_service.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[NFS] ");
constexpr uint32_t kLastFragment = 0x80000000u;
// A record of several fragments is put together up to this size.
constexpr std::size_t kMaxRecord = 4 * NFSServer::kMaxFragment;
constexpr int kIdleSeconds = 30;

// Reads exactly `size` bytes; false on end of input, error or time-out.
bool readExactly(int fd, char* buffer, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        pollfd waiting{fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, kIdleSeconds * 1000);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t n = ::recv(fd, buffer + got, size - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // a reset is a normal way to go
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool sendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

NFSServer::NFSServer(const StorageService* storage, std::string storage_base_path)
    : storage_(storage), storage_base_path_(std::move(storage_base_path)) {}

NFSServer::~NFSServer() { stop(); }

bool NFSServer::initialize(const NFSServerConfig& config) {
    if (initialized_) return true;
    config_ = config;
    if (config_.export_path.empty()) config_.export_path = storage_base_path_;
    kLog.info("Initialized with export path: ", config_.export_path);
    kLog.info("Port: ", config_.port);
    if (!isAvailable()) {
        kLog.info(getAvailabilityMessage());
        kLog.info("NFS server will run in stub mode. Use kernel NFS for actual service.");
    }
    NfsExportOptions options;
    options.path = config_.export_path;
    options.read_only = config_.read_only;
    options.root_squash = config_.root_squash;
    options.anonymous_uid = config_.anonymous_uid;
    options.anonymous_gid = config_.anonymous_gid;
    for (const std::string& network : config_.allowed_networks)
        options.groups += (options.groups.empty() ? "" : ",") + network;
    procedures_ = std::make_unique<NfsProcedures>(std::move(options));
    if (!procedures_->ready()) {
        kLog.error("Cannot open export path: ", config_.export_path, ": ", std::strerror(errno));
        procedures_.reset();
        return false;
    }
    initialized_ = true;
    return true;
}

bool NFSServer::start() {
    if (!initialized_) {
        kLog.error("Not initialized");
        return false;
    }
    if (running_.load()) return true;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        kLog.error("Failed to create socket: ", std::strerror(errno));
        return false;
    }
    const int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(config_.port));
    address.sin_addr.s_addr = INADDR_ANY;
    if (config_.bind_address != "0.0.0.0" && !config_.bind_address.empty())
        ::inet_pton(AF_INET, config_.bind_address.c_str(), &address.sin_addr);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        kLog.error("Failed to bind to port ", config_.port, ": ", std::strerror(errno));
        ::close(fd);
        return false;
    }
    if (::listen(fd, 128) != 0) {
        kLog.error("Failed to listen: ", std::strerror(errno));
        ::close(fd);
        return false;
    }
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    bound_port_ = ntohs(address.sin_port);
    listen_fd_ = fd;
    running_.store(true);
    accept_thread_ = std::thread([this] { serverLoop(); });
    kLog.info("Server started on ", config_.bind_address, ":", bound_port_);
    return true;
}

void NFSServer::stop() {
    if (!running_.exchange(false)) return;
    if (accept_thread_.joinable()) accept_thread_.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
    listen_fd_ = -1;
    std::unique_lock lock(connections_mutex_);
    // Wakes every connection thread out of its wait; each then leaves.
    for (const auto& [fd, connection] : connections_)
        ::shutdown(fd, SHUT_RDWR);
    connections_done_.wait_for(lock, std::chrono::seconds(30), [&] { return connections_.empty(); });
    kLog.info("Server stopped");
}

void NFSServer::serverLoop() {
    while (running_.load()) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(listen_fd_, &readable);
        timeval wait{1, 0};
        const int ready = ::select(listen_fd_ + 1, &readable, nullptr, nullptr, &wait);
        if (ready < 0) {
            if (errno != EINTR) kLog.error("Select error: ", std::strerror(errno));
            continue;
        }
        if (ready == 0) continue;
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int client = ::accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &length,
                                     SOCK_CLOEXEC);
        if (client < 0) {
            if (running_.load()) kLog.error("Accept error: ", std::strerror(errno));
            continue;
        }
        char text[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        const std::string address = text;
        if (!isNetworkAllowed(address)) {
            kLog.error("Rejected connection from ", address, " (not in allowed networks)");
            ::close(client);
            rejected_connections_.fetch_add(1);
            continue;
        }
        {
            std::lock_guard lock(connections_mutex_);
            if (connections_.size() >= static_cast<std::size_t>(std::max(config_.max_connections, 1))) {
                kLog.error("Rejected connection from ", address, " (max connections reached)");
                ::close(client);
                rejected_connections_.fetch_add(1);
                continue;
            }
            connections_[client] = NFSConnection{address, nowMs(), 0};
        }
        kLog.info("Connection from ", address);
        total_connections_.fetch_add(1);
        const int nodelay = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
        std::thread([this, client, address] {
            handleConnection(client, address);
            std::lock_guard lock(connections_mutex_);
            connections_.erase(client);
            ::close(client);
            connections_done_.notify_all();
        }).detach();
    }
}

void NFSServer::handleConnection(int fd, const std::string& address) {
    std::string record;
    while (running_.load()) {
        char mark_bytes[4];
        if (!readExactly(fd, mark_bytes, 4)) return;
        uint32_t mark = 0;
        std::memcpy(&mark, mark_bytes, 4);
        mark = ntohl(mark);
        const uint32_t length = mark & ~kLastFragment;
        if (length > kMaxFragment) {
            kLog.error("Fragment too large: ", length);
            errors_.fetch_add(1);
            return;
        }
        if (record.size() + length > kMaxRecord) {
            kLog.error("Record too large from ", address);
            errors_.fetch_add(1);
            return;
        }
        const std::size_t at = record.size();
        record.resize(at + length);
        if (!readExactly(fd, record.data() + at, length)) return;
        if (!(mark & kLastFragment)) continue;

        {
            std::lock_guard lock(connections_mutex_);
            if (auto it = connections_.find(fd); it != connections_.end()) ++it->second.requests;
        }
        const std::string reply = answer(record);
        record.clear();
        if (reply.empty()) {
            errors_.fetch_add(1);
            return;  // not even an RPC header to answer
        }
        const uint32_t reply_mark = htonl(kLastFragment | static_cast<uint32_t>(reply.size()));
        if (!sendAll(fd, reinterpret_cast<const char*>(&reply_mark), 4) ||
            !sendAll(fd, reply.data(), reply.size()))
            return;
    }
}

std::string NFSServer::answer(std::string_view record) {
    const std::optional<rpc::Call> call = rpc::parseCall(record);
    if (!call) return {};
    if (call->message_type != 0 || call->rpc_version != 2) return rpc::rpcMismatchReply(call->xid);
    const bool known = call->program == rpc::kProgramNfs || call->program == rpc::kProgramMount;
    if (!known)
        return rpc::acceptErrorReply(call->xid, rpc::AcceptError::ProgramUnavailable);
    if (call->version != 3)
        return rpc::acceptErrorReply(call->xid, rpc::AcceptError::ProgramMismatch);
    if (!procedures_)
        return rpc::acceptErrorReply(call->xid, rpc::AcceptError::ProgramUnavailable);
    return call->program == rpc::kProgramMount ? procedures_->mount(*call) : procedures_->nfs(*call);
}

bool NFSServer::isNetworkAllowed(const std::string& address) const {
    if (config_.allowed_networks.empty()) return true;
    for (const std::string& entry : config_.allowed_networks) {
        if (entry == address) return true;
        const std::size_t slash = entry.find('/');
        if (slash == std::string::npos) continue;
        // Deliberately a text prefix: the length after "/" is not used, so
        // 10.1.2.0/24 and 10.1.2.0/16 both admit what begins with "10.1.2".
        std::string network = entry.substr(0, slash);
        const std::size_t dot = network.rfind('.');
        if (dot != std::string::npos) network = network.substr(0, dot);
        if (address.starts_with(network)) return true;
    }
    return false;
}

bool NFSServer::isAvailable() {
    for (const char* binary : {"/usr/bin/ganesha.nfsd", "/usr/sbin/ganesha.nfsd"})
        if (::access(binary, X_OK) == 0) return true;
    if (FILE* pipe = ::popen("systemctl is-active nfs-ganesha 2>/dev/null", "r")) {
        char line[128] = "";
        const bool active = std::fgets(line, sizeof line, pipe) && std::strncmp(line, "active", 6) == 0;
        ::pclose(pipe);
        if (active) return true;
    }
    for (const char* library : {"/usr/lib/libnfs.so", "/usr/lib64/libnfs.so", "/usr/local/lib/libnfs.so"})
        if (::access(library, R_OK) == 0) return true;
    return ::access("/proc/fs/nfsd", R_OK) == 0;
}

std::string NFSServer::getAvailabilityMessage() {
    return isAvailable() ? "NFS service available"
                         : "No NFS service found (neither NFS-Ganesha nor kernel NFS)";
}

std::vector<NFSConnection> NFSServer::getConnections() const {
    std::lock_guard lock(connections_mutex_);
    std::vector<NFSConnection> list;
    for (const auto& [fd, connection] : connections_)
        list.push_back(connection);
    return list;
}

std::string NFSServer::generateExportsFile() const {
    std::string options = config_.read_only ? "ro," : "rw,";
    options += "sync,";
    options += config_.root_squash ? "root_squash," : "no_root_squash,";
    options += "anonuid=" + std::to_string(config_.anonymous_uid) +
               ",anongid=" + std::to_string(config_.anonymous_gid) + ")";
    std::string clients;
    for (const std::string& network : config_.allowed_networks)
        clients += " " + network + "(" + options;
    if (clients.empty()) clients = " *(" + options;

    std::string text =
        "# Vostra NFS exports file\n# Generated by vostra-datad\n"
        "# Copy to /etc/exports and run: exportfs -ra\n\n";
    if (storage_) {
        // The folders where the tenants' files really are.
        for (const TenantConfig& tenant : storage_->listTenants()) {
            text += "# Tenant: " + tenant.name + " (" + tenant.id + ")\n";
            text += storage_base_path_ + "/tenants/" + tenant.id + clients + "\n";
        }
    }
    text += "# Root storage path\n";
    text += config_.export_path + " *(rw,sync,no_subtree_check" +
            (config_.root_squash ? ",root_squash" : ",no_root_squash") + ")\n";
    return text;
}

std::string NFSServer::generateMountUnit(const std::string& host,
                                         const std::string& mount_point) const {
    std::string name = mount_point.starts_with('/') ? mount_point.substr(1) : mount_point;
    std::replace(name.begin(), name.end(), '/', '-');
    std::string options = "rw,soft,intr,timeo=30,retrans=3";
    if (config_.port != 2049) options += ",port=" + std::to_string(config_.port);
    return "# Systemd mount unit for Vostra NFS storage\n"
           "# Save as: /etc/systemd/system/" + name + ".mount\n"
           "# Enable: systemctl enable --now " + name + ".mount\n\n"
           "[Unit]\nDescription=Vostra NFS Storage Mount\nAfter=network-online.target\n"
           "Wants=network-online.target\n\n"
           "[Mount]\nWhat=" + host + ":/\nWhere=" + mount_point + "\nType=nfs\nOptions=" +
           options + "\n\n[Install]\nWantedBy=multi-user.target\n";
}

nlohmann::json NFSServer::metricsJson() const {
    constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;
    const uint64_t read = procedures_ ? procedures_->bytes_read.load() : 0;
    const uint64_t written = procedures_ ? procedures_->bytes_written.load() : 0;
    std::size_t active = 0;
    {
        std::lock_guard lock(connections_mutex_);
        active = connections_.size();
    }
    return {{"active_connections", active},
            {"total_connections", total_connections_.load()},
            {"total_reads", procedures_ ? procedures_->reads.load() : 0},
            {"total_writes", procedures_ ? procedures_->writes.load() : 0},
            {"bytes_read", read},
            {"bytes_written", written},
            {"bytes_read_gb", read / kGiB},
            {"bytes_written_gb", written / kGiB},
            {"errors", errors_.load()}};
}

}  // namespace vostra::data
