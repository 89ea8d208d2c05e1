// The real vostra-datad binary as a child process: started on a free port
// with a private temporary folder (storage under it), awaited on /health,
// stopped with SIGTERM. One per test or per suite; not copyable.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostra::test {

// A loopback port that was free a moment ago.
int freePort();
// A socket bound to a free loopback port (not yet listening); sets `port`.
int bindLoopback(int& port);

// A new empty directory under $TMPDIR (or /tmp); removed by removeTree.
std::string makeTempDir(const std::string& tag = "vostra");
void removeTree(const std::string& path);

// Open descriptors and threads of a process.
std::pair<int, int> resourcesOf(pid_t pid);

// Runs `command` through the shell; its standard output, and its exit
// status in `status` when given.
std::string runCommand(const std::string& command, int* status = nullptr);

// Asks `done` every 20 ms until it holds (true) or `timeout_ms` pass (false).
bool eventually(const std::function<bool()>& done, int timeout_ms = 10000);

struct ProgramRun {
    int exit_status = -1;  // -1 when killed by a signal or timed out
    std::string out;
    std::string err;
};

// Runs the binary with `args` to completion (killed after `timeout_ms`).
ProgramRun runDaemonBinary(const std::vector<std::string>& args, int timeout_ms = 10000);

// Settings for a daemon started from a configuration file.
struct ConfigFile {
    nlohmann::json settings;
};

class DaemonProcess {
public:
    // Starts the daemon with "-p <free port> --storage-path <dir>/storage
    // --git-path <dir>/git --science-keys-file <dir>/science/..." followed
    // by `extra_args` (later options win).
    // When `wait_ready`, blocks until /health answers or the process dies;
    // check ready().
    explicit DaemonProcess(std::vector<std::string> extra_args = {}, bool wait_ready = true);
    // Starts it with "--config" alone (some settings have no option), the
    // file holding the settings plus this daemon's port and, unless given,
    // its storage and vector paths. Blocks until /health answers.
    explicit DaemonProcess(const ConfigFile& config);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::string& dir() const { return dir_; }
    bool ready() const { return ready_; }

    // Polls /health on `port` until it answers 200; false on timeout or exit.
    bool waitReady(int port, int timeout_ms = 10000);
    // SIGTERM, then waits up to `timeout_ms`; returns the exit status, or -1
    // when the process had to be killed or died of a signal.
    int stop(int timeout_ms = 5000);
    bool running();

    std::string stdoutText() const;
    std::string stderrText() const;

private:
    void launch(const std::vector<std::string>& extra_args, const nlohmann::json& config,
                bool wait_ready);

    int port_ = 0;
    pid_t pid_ = -1;
    std::string dir_;
    bool ready_ = false;
    int status_ = -1;
};

}  // namespace vostra::test
