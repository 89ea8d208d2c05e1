#include "cluster/controller_client.h"

#include <nlohmann/json.hpp>

#include "common/http_client.h"
#include "common/log.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr int kFirstBackoffSeconds = 5;
constexpr int kMaxBackoffSeconds = 30;

std::string workerPath(const std::string& daemon_id, const char* action) {
    return "/api/v1/data-workers/" + daemon_id + "/" + action;
}

}  // namespace

ControllerClient::ControllerClient(std::string controller_url, Sleeper sleeper)
    : controller_url_(std::move(controller_url)), sleeper_(std::move(sleeper)) {}

int ControllerClient::backoffSeconds(int failures_before) {
    // Shifting further than this would overflow long after the cap applies.
    if (failures_before >= 3) return kMaxBackoffSeconds;
    return std::min(kFirstBackoffSeconds << failures_before, kMaxBackoffSeconds);
}

bool ControllerClient::registerWorker(const nlohmann::json& body) {
    if (!configured()) return false;
    nlohmann::json answer;
    if (!vostra::httpPost(controller_url_ + "/api/v1/data-workers/register", body, answer))
        return false;
    kLog.info("Registered with controller");
    return true;
}

bool ControllerClient::heartbeat(const std::string& daemon_id, const nlohmann::json& body,
                                 const std::function<nlohmann::json()>& registration) {
    if (!configured()) return false;
    nlohmann::json answer;
    const bool delivered =
        vostra::httpPost(controller_url_ + workerPath(daemon_id, "heartbeat"), body, answer);
    const bool refused = answer.is_object() && answer.contains("error") &&
                         answer["error"].is_string() &&
                         !answer["error"].get<std::string>().empty();
    if (delivered && !refused) {
        failures_ = 0;
        return true;
    }

    const int backoff = backoffSeconds(failures_.load());
    const int attempt = ++failures_;
    kLog.error("Heartbeat failed (attempt ", attempt, "), backoff ", backoff,
               "s before re-registration...");
    if (!sleeper_(backoff)) return false;
    if (!registerWorker(registration())) return false;
    kLog.info("Re-registered with controller after heartbeat failure");
    failures_ = 0;
    return true;
}

void ControllerClient::deregister(const std::string& daemon_id) {
    if (!configured()) return;
    nlohmann::json answer;
    vostra::httpPost(controller_url_ + workerPath(daemon_id, "deregister"),
                     {{"daemon_id", daemon_id}}, answer);
}

}  // namespace vostra::data
