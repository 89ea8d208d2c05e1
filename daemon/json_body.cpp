#include "daemon/json_body.h"

namespace vostra::data {
namespace {

constexpr const char* kNotAnObject = "Request body must be a JSON object";

}  // namespace

std::optional<nlohmann::json> readRequiredJsonObject(const HttpRequest& request) {
    std::optional<nlohmann::json> body;
    try {
        body = nlohmann::json::parse(request.body);
    } catch (const nlohmann::json::exception& error) {
        sendError(request.fd, 400, error.what());
        return std::nullopt;
    }
    if (body->is_object()) return body;
    sendError(request.fd, 400, kNotAnObject);
    return std::nullopt;
}

std::optional<nlohmann::json> readJsonObject(const HttpRequest& request) {
    if (request.body.find_first_not_of(" \t\r\n") == std::string::npos)
        return nlohmann::json::object();
    nlohmann::json body = nlohmann::json::parse(request.body, nullptr, /*allow_exceptions=*/false);
    if (body.is_discarded() || !body.is_object()) {
        sendError(request.fd, 400, kNotAnObject);
        return std::nullopt;
    }
    return body;
}

}  // namespace vostra::data
