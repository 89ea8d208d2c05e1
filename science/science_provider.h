// One public scientific data service as the gateway knows it: where it
// lives, how it wants its key, how fast it may be asked, and the named
// query templates that spare callers its URL layout. Plain value records
// with their JSON forms (the custom-providers file and the provider
// routes use them); thread-safe to copy.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vostra::data {

enum class ScienceCategory {
    Space,
    Physics,
    Earth,
    Biology,
    Medicine,
    Chemistry,
    Materials,
    Literature,
    Food,
    Agriculture,
    Economics,
    SocialScience,
    Engineering,
    Mathematics,
    Robotics,
    MachineLearning,
    General,
};

// "space", "machine_learning", ...; an unknown name reads as General.
std::string_view categoryName(ScienceCategory category);
ScienceCategory categoryFromName(std::string_view name);

enum class AuthType { None, ApiKey, Bearer, Basic };

std::string_view authTypeName(AuthType type);
// "none", "api_key", "bearer", "basic"; anything else is None.
AuthType authTypeFromName(std::string_view name);

// How a provider wants its key. An API key goes into the query string as
// `param_name` when that is set, else into the header `header_name`
// ("X-API-Key" when empty); Bearer and Basic go into "Authorization".
struct ProviderAuth {
    AuthType type = AuthType::None;
    std::string param_name;
    std::string header_name;
    std::string env_var;  // where the key is read from besides the key file

    bool needsKey() const { return type != AuthType::None; }
};

// Where a service's answer keeps its result list, and which fields of each
// item to report; empty fields are not reported.
struct ResponseMapping {
    std::string results_path;  // dotted, e.g. "esearchresult.idlist"
    std::string title_field;
    std::string description_field;
    std::string url_field;
    std::string id_field;
};

// A named call of one service. "{name}" in the endpoint, a parameter value
// or the body template is filled from the caller's parameters.
struct QueryTemplate {
    std::string name;
    std::string endpoint;
    std::string method = "GET";
    std::map<std::string, std::string> params;
    std::string body_template;
    std::map<std::string, std::string> headers;
    ResponseMapping response;
    int max_results = 10;
};

struct ScienceProvider {
    std::string id;
    std::string name;
    std::string description;
    std::string base_url;
    ScienceCategory category = ScienceCategory::General;
    bool enabled = true;
    int rate_limit_rpm = 60;  // 0: unlimited
    ProviderAuth auth;
    std::vector<QueryTemplate> queries;

    const QueryTemplate* findQuery(std::string_view name) const;
};

nlohmann::json providerToJson(const ScienceProvider& provider);
// `base` with the keys present in `json` assigned, so that a partial
// record (say, only "id" and "base_url") changes only what it names. A
// present key of the wrong JSON type throws nlohmann::json::type_error.
ScienceProvider providerFromJson(const nlohmann::json& json, ScienceProvider base = {});

}  // namespace vostra::data
