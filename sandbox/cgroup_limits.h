// The control groups one sandbox run lives in, when the host lets the daemon
// make them: a pids group (fork bombs stop at the limit, whatever the user)
// and a memory group (the kernel reclaims, then kills inside the group
// only). Made under the daemon's own groups, for cgroup v1 hierarchies and
// for a delegated cgroup v2 one; the run's first process joins them by
// writing itself into the files attachFds() holds, before it executes
// anything. Destruction kills what is left in them and removes them.
//
// Not copyable; one per run, used from the thread that runs it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vostra::sandbox {

class CgroupLimits {
public:
    // Groups named `name` with the given limits; those the host refuses
    // are simply absent (see holdsMemory / holdsProcesses).
    CgroupLimits(const std::string& name, int64_t memory_bytes, int max_processes);
    ~CgroupLimits();
    CgroupLimits(const CgroupLimits&) = delete;
    CgroupLimits& operator=(const CgroupLimits&) = delete;

    bool holdsMemory() const { return memory_; }
    bool holdsProcesses() const { return pids_; }
    // Open "cgroup.procs" files (close-on-exec) the child writes its pid to.
    const std::vector<int>& attachFds() const { return attach_fds_; }
    // SIGKILL to every member, until none is left (bounded).
    void killAll() const;

private:
    bool make(const std::string& dir, const std::vector<std::pair<std::string, std::string>>& limits);

    std::vector<std::string> dirs_;
    std::vector<int> attach_fds_;
    bool memory_ = false;
    bool pids_ = false;
};

}  // namespace vostra::sandbox
