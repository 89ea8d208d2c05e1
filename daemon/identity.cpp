#include "daemon/identity.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>

#include "common/random_id.h"

namespace vostra::data {

std::string generateDaemonId() { return "data-" + vostra::randomHex(12); }

std::string generateMachineId() {
    std::ifstream file("/etc/machine-id");
    std::string line;
    if (file && std::getline(file, line) && !line.empty()) return line;
    return "host-" + getHostname();
}

std::string getHostname() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "localhost";
    return name;
}

std::string getLocalIP() {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(getHostname().c_str(), nullptr, &hints, &found) != 0 || !found)
        return "127.0.0.1";

    char text[INET_ADDRSTRLEN] = {};
    const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    const bool ok = inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr;
    freeaddrinfo(found);
    return ok ? text : "127.0.0.1";
}

uint64_t getStorageCapacityBytes(const std::string& storage_path) {
    const std::string path = storage_path.empty() ? "/var/lib/vostra/storage" : storage_path;
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0) return 0;
    return static_cast<uint64_t>(info.f_blocks) * info.f_frsize;
}

}  // namespace vostra::data
