// Facts about this node that the daemon reports: its ids, host name, address
// and storage capacity. Free functions without state of their own; thread-safe.
#pragma once

#include <cstdint>
#include <string>

namespace vostra::data {

// "data-" and 12 random lowercase hexadecimal digits.
std::string generateDaemonId();

// First line of /etc/machine-id; where unreadable, a stable id derived from the host name.
std::string generateMachineId();

// gethostname(), or "localhost" when that fails.
std::string getHostname();

// First IPv4 address the host name resolves to, or "127.0.0.1".
std::string getLocalIP();

// Size in bytes of the file system holding `storage_path` (the default
// storage path when empty); 0 when it cannot be examined.
uint64_t getStorageCapacityBytes(const std::string& storage_path);

}  // namespace vostra::data
