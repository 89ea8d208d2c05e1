// The worker's side of the controller protocol: registration, heartbeats with
// back-off and re-registration, and deregistration, as JSON over HTTP. The
// bodies are built by DataDaemon, which owns one client per process.
//
// Thread-safety: register and deregister may run on any thread; heartbeat()
// runs on the heartbeat thread only (it alone touches the failure count).
#pragma once

#include <atomic>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vostra::data {

class ControllerClient {
public:
    // Waits the back-off before a re-registration; returns false when the
    // wait was cut short because the daemon is stopping.
    using Sleeper = std::function<bool(int seconds)>;

    ControllerClient(std::string controller_url, Sleeper sleeper);

    // Every call is a no-op (false) without a controller URL.
    bool configured() const { return !controller_url_.empty(); }

    // POSTs the registration body; true when the controller accepted it.
    bool registerWorker(const nlohmann::json& body);

    // POSTs a heartbeat. A transport failure, a non-JSON answer, a status of
    // 400 or more, or an answer with a non-empty "error" is a failure: it
    // waits 5, 10, 20, then 30 s (by consecutive failures) and re-registers
    // with the body `registration` builds. True on a heartbeat or
    // re-registration that succeeded.
    bool heartbeat(const std::string& daemon_id, const nlohmann::json& body,
                   const std::function<nlohmann::json()>& registration);

    // POSTs {"daemon_id": id}; the answer is not examined.
    void deregister(const std::string& daemon_id);

    int consecutiveFailures() const { return failures_.load(); }

    // Seconds to wait after a failure when `failures_before` failures preceded it.
    static int backoffSeconds(int failures_before);

private:
    const std::string controller_url_;
    const Sleeper sleeper_;
    std::atomic<int> failures_{0};
};

}  // namespace vostra::data
