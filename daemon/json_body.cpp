#include "daemon/json_body.h"

namespace vostra::data {

std::optional<nlohmann::json> readJsonObject(const HttpRequest& request) {
    if (request.body.find_first_not_of(" \t\r\n") == std::string::npos)
        return nlohmann::json::object();
    nlohmann::json body = nlohmann::json::parse(request.body, nullptr, /*allow_exceptions=*/false);
    if (body.is_discarded() || !body.is_object()) {
        sendError(request.fd, 400, "Request body must be a JSON object");
        return std::nullopt;
    }
    return body;
}

}  // namespace vostra::data
