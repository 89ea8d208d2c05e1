// A DataDaemon inside the test's own process: initialised (not started) with
// storage and vectors under a private temporary folder, and answering one
// request per call through a socket pair, exactly as a client thread of the
// real server would. Fast enough for a test per route; the contract of the
// real binary stays with tests/integration/. Not copyable.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "daemon/data_daemon.h"
#include "tests/support/http_test_client.h"

namespace vostra::test {

class InProcessDaemon {
public:
    // `adjust` may change the configuration before initialize(); the storage,
    // vector, git and science file paths already point into the private folder.
    explicit InProcessDaemon(
        const std::function<void(data::DataDaemonConfig&)>& adjust = nullptr);
    ~InProcessDaemon();
    InProcessDaemon(const InProcessDaemon&) = delete;
    InProcessDaemon& operator=(const InProcessDaemon&) = delete;

    bool initialized() const { return initialized_; }
    data::DataDaemon& daemon() { return *daemon_; }
    const std::string& dir() const { return dir_; }

    // A well-formed request with Content-Length and the given header lines.
    HttpResponse call(const std::string& method, const std::string& path,
                      const std::string& body = "", const std::vector<std::string>& headers = {});
    // Exactly `bytes`, then end of input.
    HttpResponse sendRaw(const std::string& bytes);

private:
    std::string dir_;
    std::unique_ptr<data::DataDaemon> daemon_;
    bool initialized_ = false;
};

}  // namespace vostra::test
