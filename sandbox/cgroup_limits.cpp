#include "sandbox/cgroup_limits.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace vostra::sandbox {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRoot = "/sys/fs/cgroup";

bool writeFile(const std::string& path, const std::string& value) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    close(fd);
    return written;
}

// "controllers" -> own path, from /proc/self/cgroup ("" for the v2 line).
std::vector<std::pair<std::string, std::string>> ownGroups() {
    std::vector<std::pair<std::string, std::string>> groups;
    std::ifstream in("/proc/self/cgroup");
    for (std::string line; std::getline(in, line);) {
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos) continue;
        groups.emplace_back(line.substr(first + 1, second - first - 1), line.substr(second + 1));
    }
    return groups;
}

}  // namespace

CgroupLimits::CgroupLimits(const std::string& name, int64_t memory_bytes, int max_processes) {
    const auto groups = ownGroups();
    for (const auto& [controllers, path] : groups) {
        if (controllers == "pids" && !pids_)
            pids_ = make(std::string(kRoot) + "/pids" + path + "/" + name,
                         {{"pids.max", std::to_string(max_processes)}});
        else if (controllers == "memory" && !memory_)
            memory_ = make(std::string(kRoot) + "/memory" + path + "/" + name,
                           {{"memory.limit_in_bytes", std::to_string(memory_bytes)}});
    }
    // A unified hierarchy: one group for both, when our group delegates them.
    if (!pids_ && !memory_ && fs::exists(std::string(kRoot) + "/cgroup.controllers")) {
        for (const auto& [controllers, path] : groups) {
            if (!controllers.empty()) continue;
            const std::string dir = std::string(kRoot) + path + "/" + name;
            if (make(dir, {{"pids.max", std::to_string(max_processes)},
                           {"memory.max", std::to_string(memory_bytes)},
                           {"memory.swap.max", "0"}})) {
                pids_ = memory_ = true;
            }
        }
    }
}

bool CgroupLimits::make(const std::string& dir,
                        const std::vector<std::pair<std::string, std::string>>& limits) {
    std::error_code error;
    if (!fs::create_directory(dir, error)) return false;
    bool held = true;
    for (const auto& [file, value] : limits) {
        // Swap may not be accounted on this kernel; the memory limit still holds.
        if (!writeFile(dir + "/" + file, value) && file != "memory.swap.max") held = false;
    }
    const int fd = held ? open((dir + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        fs::remove(dir, error);
        return false;
    }
    dirs_.push_back(dir);
    attach_fds_.push_back(fd);
    return true;
}

void CgroupLimits::killAll() const {
    for (int round = 0; round < 100; ++round) {
        bool any = false;
        for (const std::string& dir : dirs_) {
            std::ifstream procs(dir + "/cgroup.procs");
            for (pid_t pid; procs >> pid;) {
                kill(pid, SIGKILL);
                any = true;
            }
        }
        if (!any) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

CgroupLimits::~CgroupLimits() {
    for (int fd : attach_fds_) close(fd);
    killAll();
    for (const std::string& dir : dirs_) {
        // A group empties a moment after its last member is reaped.
        for (int attempt = 0; attempt < 50 && rmdir(dir.c_str()) != 0 && errno == EBUSY; ++attempt)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace vostra::sandbox
