// Running one command in isolation with bubblewrap (`bwrap`): a fresh user,
// PID, IPC, UTS, cgroup and network namespace; the host's programs and
// libraries read-only; a private /proc, /dev and /tmp; one host folder
// mounted read-write at /workspace; nothing else of the host (no storage
// root, no other tenant, no daemon state, no daemon socket, no /etc/shadow).
// Network is a private loopback unless the command asks for the host's.
//
// Limits: wall time (the whole process tree is killed at it), memory and
// process count (a cgroup when the host lets us make one, else rlimits),
// and output (each stream kept up to a cap, the rest read and counted).
//
// Stateless apart from its settings; run() may be called from many threads.
#pragma once

#include <cstdint>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace vostra::sandbox {

struct SandboxLimits {
    int timeout_seconds = 60;
    int64_t memory_bytes = 512LL << 20;
    int max_processes = 64;
    std::size_t output_bytes = 1u << 20;  // per stream
};

struct SandboxCommand {
    std::vector<std::string> argv;  // run as it stands; no shell unless argv[0] is one
    std::string host_dir;           // mounted read-write at kWorkspaceMount
    bool network = false;           // the host's network instead of a private loopback
    std::vector<std::pair<std::string, std::string>> env;
    SandboxLimits limits;
};

struct SandboxOutcome {
    bool started = false;
    std::string error;  // why it did not start
    int exit_code = -1;
    bool timed_out = false;
    bool cancelled = false;
    std::string stdout_text;
    std::string stderr_text;
    uint64_t stdout_dropped = 0;  // bytes read past the cap
    uint64_t stderr_dropped = 0;
    int64_t duration_ms = 0;
    // How the memory and process limits were held: "cgroup", "rlimit" or
    // "none" (a root daemon without a pids cgroup cannot cap processes).
    std::string memory_limit;
    std::string process_limit;
};

inline constexpr const char* kWorkspaceMount = "/workspace";

class SandboxRunner {
public:
    explicit SandboxRunner(std::string bwrap_path = "bwrap");

    // Empty when sandboxes can run here, else why not (no bwrap, no
    // namespaces). Runs a trivial sandbox; cheap enough for start-up.
    std::string probe() const;

    // Runs the command to its end, its time limit or `stop`. Never throws.
    SandboxOutcome run(const SandboxCommand& command, std::stop_token stop = {}) const;

    // The bwrap arguments for `command` (without the program itself).
    static std::vector<std::string> bwrapArguments(const SandboxCommand& command);

private:
    std::string bwrap_;  // resolved to an absolute path when found
};

}  // namespace vostra::sandbox
