// The scientific data gateway under "/api/v1/science": the provider table
// and its keys, generic queries, and convenience routes for the
// best-known services. Answers of the services come back as the result
// record ("success", "data", "error", "status_code", "response_time_ms");
// keys are never answered, only whether they are set.
#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/json_body.h"
#include "daemon/route_table.h"
#include "daemon/status_table.h"
#include "science/scientific_connector.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr const char* kNotFound = "Scientific endpoint not found";
constexpr const char* kNotInitialized = "Scientific data connector not initialized";
constexpr const char* kKeysSaved = "API keys saved";
constexpr const char* kKeysNotSaved = "Failed to save API keys to file";
constexpr const char* kMissingKeys = "Missing 'keys' object";
constexpr const char* kMissingApiKey = "Missing 'api_key'";
constexpr const char* kMissingProvider = "Missing 'provider'";
// Query fields that name a provider's template, their value being the query.
constexpr const char* kTemplateFields[] = {"search", "lookup", "details", "fetch"};
constexpr int kDefaultTimeoutMs = 30000;
constexpr int kMaxTimeoutMs = 120000;

// Failures whose status does not depend on the route. A service that
// failed us (unreachable, or answering an error) is a bad gateway.
constexpr KindStatus kScienceStatuses[] = {
    {ErrorKind::Invalid, 400},  {ErrorKind::Refused, 403},       {ErrorKind::NotFound, 404},
    {ErrorKind::Conflict, 409}, {ErrorKind::QuotaExceeded, 429},
};
constexpr int kUpstreamFailed = 502;

// What the rows are handed: the connector, and the path as received, for
// the query string the rows are matched without.
struct ScienceCall {
    ScientificConnector& connector;
    std::string_view path;

    std::string parameter(std::string_view name, std::string_view fallback = {}) const {
        return queryParameter(path, name, fallback);
    }
};

void sendResult(int fd, const ScienceResult& result) {
    const int status =
        result.success ? 200 : statusFor(kScienceStatuses, result.kind, kUpstreamFailed);
    sendJson(fd, status, result.toJson());
}

void sendFailure(int fd, const Status& status) {
    sendError(fd, statusFor(kScienceStatuses, status.kind, 500), status.message);
}

// A whole number from the query string: `fallback` when absent, nothing
// (after answering 400) when malformed.
template <typename Number>
std::optional<Number> numberParameter(const ScienceCall& call, const HttpRequest& request,
                                      std::string_view name, Number fallback) {
    const std::string text = call.parameter(name);
    if (text.empty()) return fallback;
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size()) return value;
    sendError(request.fd, 400, "Invalid " + std::string(name) + ": " + text);
    return std::nullopt;
}

json providerAnswer(const ScientificConnector& connector, const ScienceProvider& provider) {
    json answer = providerToJson(provider);
    answer["available"] = connector.isAvailable(provider);
    return answer;
}

void listConnectors(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    json connectors = json::array();
    for (const ScienceProvider& provider : call.connector.listProviders())
        connectors.push_back({{"id", provider.id},
                              {"name", provider.name},
                              {"description", provider.description},
                              {"category", categoryName(provider.category)},
                              {"available", call.connector.isAvailable(provider)}});
    sendJson(request.fd, 200, {{"connectors", connectors}, {"count", connectors.size()}});
}

void listProviders(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    json providers = json::array();
    for (const ScienceProvider& provider : call.connector.listProviders())
        providers.push_back(providerAnswer(call.connector, provider));
    sendJson(request.fd, 200, {{"providers", providers}, {"count", providers.size()}});
}

void addProvider(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    if (Status added = call.connector.addCustomProvider(*body); !added)
        return sendFailure(request.fd, added);
    sendJson(request.fd, 201, {{"status", "created"}, {"id", body->value("id", "")}});
}

void getProvider(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::string id = params.get("id");
    const std::optional<ScienceProvider> provider = call.connector.getProvider(id);
    if (!provider) return sendError(request.fd, 404, ScientificConnector::kUnknownProvider + id);
    sendJson(request.fd, 200, providerAnswer(call.connector, *provider));
}

void deleteProvider(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    if (Status removed = call.connector.removeCustomProvider(params.get("id")); !removed)
        return sendFailure(request.fd, removed);
    sendJson(request.fd, 200, {{"status", "deleted"}});
}

void testProvider(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.testProvider(params.get("id")));
}

void setProviderAuth(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    auto key = body->find("api_key");
    if (key == body->end() || !key->is_string()) return sendError(request.fd, 400, kMissingApiKey);
    const std::string id = params.get("id");
    const Status saved = call.connector.setProviderKey(id, key->get<std::string>());
    if (saved.kind == ErrorKind::NotFound) return sendFailure(request.fd, saved);
    if (!saved) {
        kLog.error(kKeysNotSaved, ": ", saved.message);
        return sendError(request.fd, 500, kKeysNotSaved);
    }
    const std::optional<ScienceProvider> provider = call.connector.getProvider(id);
    sendJson(request.fd, 200,
             {{"status", "saved"},
              {"provider", id},
              {"key_name", provider ? ScientificConnector::keyName(*provider) : id}});
}

void getApiKeys(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    sendJson(request.fd, 200, call.connector.keyReport());
}

void postApiKeys(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readJsonObject(request);
    if (!body) return;
    auto keys = body->find("keys");
    if (keys == body->end() || !keys->is_object()) return sendError(request.fd, 400, kMissingKeys);
    std::map<std::string, std::string> changes;
    for (const auto& [name, value] : keys->items()) {
        if (!value.is_string() && !value.is_null())
            return sendError(request.fd, 400, "Key value must be a string: " + name);
        changes[name] = value.is_string() ? value.get<std::string>() : "";
    }
    if (Status saved = call.connector.saveKeys(changes); !saved) {
        kLog.error(kKeysNotSaved, ": ", saved.message);
        return sendError(request.fd, 500, kKeysNotSaved);
    }
    sendJson(request.fd, 200, {{"message", kKeysSaved}, {"count", changes.size()}});
}

// A parameter value as the service will see it: strings as they are,
// anything else as its JSON text.
std::string parameterText(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void postQuery(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const std::optional<json> body = readRequiredJsonObject(request);
    if (!body) return;
    ScienceRequest science;
    science.provider = body->value("provider", "");
    if (science.provider.empty()) return sendError(request.fd, 400, kMissingProvider);
    science.endpoint = body->value("endpoint", "");
    science.query = body->value("query", body->value("term", ""));
    for (const char* field : kTemplateFields) {
        if (!science.endpoint.empty()) break;
        if (auto it = body->find(field); it != body->end()) {
            science.endpoint = field;
            if (science.query.empty() && it->is_string()) science.query = it->get<std::string>();
        }
    }
    science.limit = body->value("limit", body->value("max_results", 0));
    if (auto params = body->find("params"); params != body->end() && params->is_object())
        for (const auto& [name, value] : params->items())
            science.params[name] = parameterText(value);
    science.method = body->value("method", "GET");
    if (auto payload = body->find("body"); payload != body->end() && !payload->is_null())
        science.body = parameterText(*payload);
    science.timeout_ms = std::clamp(body->value("timeout_ms", kDefaultTimeoutMs), 1, kMaxTimeoutMs);
    sendResult(request.fd, call.connector.execute(science));
}

void nasaApod(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    sendResult(request.fd, call.connector.nasaApod(call.parameter("date")));
}

void nasaNeo(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    sendResult(request.fd,
               call.connector.nasaNeo(call.parameter("start_date"), call.parameter("end_date")));
}

void nasaMarsRover(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto sol = numberParameter(call, request, "sol", 1000);
    if (!sol) return;
    sendResult(request.fd, call.connector.nasaMarsRover(call.parameter("rover", "curiosity"), *sol,
                                                        call.parameter("camera")));
}

void usgsEarthquakes(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto magnitude = numberParameter(call, request, "minmagnitude", 2.5);
    if (!magnitude) return;
    const auto limit = numberParameter(call, request, "limit", 100);
    if (!limit) return;
    sendResult(request.fd,
               call.connector.usgsEarthquakes(call.parameter("starttime"),
                                              call.parameter("endtime"), *magnitude, *limit));
}

void noaaWeather(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    if (call.parameter("lat").empty() || call.parameter("lon").empty())
        return sendError(request.fd, 400, "Missing 'lat' or 'lon'");
    const auto latitude = numberParameter(call, request, "lat", 0.0);
    if (!latitude) return;
    const auto longitude = numberParameter(call, request, "lon", 0.0);
    if (!longitude) return;
    sendResult(request.fd, call.connector.noaaWeather(*latitude, *longitude));
}

void ncbiSearchIn(ScienceCall& call, const HttpRequest& request, const std::string& database) {
    const auto retmax = numberParameter(call, request, "retmax", 20);
    if (!retmax) return;
    sendResult(request.fd, call.connector.ncbiSearch(database, call.parameter("term"), *retmax));
}

void ncbiSearch(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    ncbiSearchIn(call, request, call.parameter("db", "nucleotide"));
}

void pubmedSearch(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    ncbiSearchIn(call, request, "pubmed");
}

// Summaries as JSON, or with "rettype" the full records as text.
void ncbiFetch(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    const std::string database = call.parameter("db", "nucleotide");
    const std::string rettype = call.parameter("rettype");
    sendResult(request.fd, rettype.empty()
                               ? call.connector.ncbiFetch(database, params.get("id"))
                               : call.connector.ncbiEfetch(database, params.get("id"), rettype));
}

void uniprotSearch(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto size = numberParameter(call, request, "size", 10);
    if (!size) return;
    sendResult(request.fd, call.connector.uniprotSearch(call.parameter("query"), *size));
}

void uniprotEntry(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.uniprotEntry(params.get("id")));
}

void pdbSearch(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto rows = numberParameter(call, request, "rows", 10);
    if (!rows) return;
    sendResult(request.fd, call.connector.pdbSearch(call.parameter("query"), *rows));
}

void pdbEntry(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.pdbEntry(params.get("id")));
}

void pubchemCompound(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.pubchemCompound(params.get("name")));
}

void pubchemProperties(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd,
               call.connector.pubchemProperties(
                   params.get("name"),
                   call.parameter("properties",
                                  "MolecularFormula,MolecularWeight,CanonicalSMILES,IUPACName")));
}

void materialsSearch(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto limit = numberParameter(call, request, "limit", 10);
    if (!limit) return;
    sendResult(request.fd, call.connector.materialsSearch(call.parameter("formula"), *limit));
}

void materialsEntry(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.materialsEntry(params.get("id")));
}

void cernDatasets(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    const auto size = numberParameter(call, request, "size", 10);
    if (!size) return;
    sendResult(request.fd, call.connector.cernDatasets(call.parameter("query"), *size));
}

void cernRecord(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.cernRecord(params.get("id")));
}

void gwoscEvents(ScienceCall& call, const HttpRequest& request, const RouteParams&) {
    sendResult(request.fd, call.connector.gwoscEvents(call.parameter("catalog", "GWTC")));
}

void gwoscEvent(ScienceCall& call, const HttpRequest& request, const RouteParams& params) {
    sendResult(request.fd, call.connector.gwoscEvent(params.get("name")));
}

// Fixed words ("search") come before the {id} rows they would also fit.
constexpr ServiceRoute<ScienceCall> kScienceRoutes[] = {
    {"GET", "/api/v1/science/connectors", listConnectors},
    {"GET", "/api/v1/science/providers", listProviders},
    {"POST", "/api/v1/science/providers", addProvider},
    {"GET", "/api/v1/science/providers/{id}", getProvider},
    {"DELETE", "/api/v1/science/providers/{id}", deleteProvider},
    {"GET", "/api/v1/science/providers/{id}/test", testProvider},
    {"POST", "/api/v1/science/providers/{id}/test", testProvider},
    {"POST", "/api/v1/science/providers/{id}/auth", setProviderAuth},
    {"GET", "/api/v1/science/api-keys", getApiKeys},
    {"POST", "/api/v1/science/api-keys", postApiKeys},
    {"POST", "/api/v1/science/query", postQuery},
    {"GET", "/api/v1/science/nasa/apod", nasaApod},
    {"GET", "/api/v1/science/nasa/neo", nasaNeo},
    {"GET", "/api/v1/science/nasa/mars-rover", nasaMarsRover},
    {"GET", "/api/v1/science/usgs/earthquakes", usgsEarthquakes},
    {"GET", "/api/v1/science/noaa/weather", noaaWeather},
    {"GET", "/api/v1/science/ncbi/search", ncbiSearch},
    {"GET", "/api/v1/science/ncbi/fetch/{id}", ncbiFetch},
    {"GET", "/api/v1/science/pubmed/search", pubmedSearch},
    {"GET", "/api/v1/science/uniprot/search", uniprotSearch},
    {"GET", "/api/v1/science/uniprot/{id}", uniprotEntry},
    {"GET", "/api/v1/science/pdb/search", pdbSearch},
    {"GET", "/api/v1/science/pdb/{id}", pdbEntry},
    {"GET", "/api/v1/science/pubchem/{name}", pubchemCompound},
    {"GET", "/api/v1/science/pubchem/{name}/properties", pubchemProperties},
    {"GET", "/api/v1/science/materials/search", materialsSearch},
    {"GET", "/api/v1/science/materials/{id}", materialsEntry},
    {"GET", "/api/v1/science/cern/datasets", cernDatasets},
    {"GET", "/api/v1/science/cern/records/{id}", cernRecord},
    {"GET", "/api/v1/science/gwosc/events", gwoscEvents},
    {"GET", "/api/v1/science/gwosc/events/{name}", gwoscEvent},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("science", kScienceRoutes);

}  // namespace

void DataDaemon::startScience() {
    ScientificConnector::Options options;
    options.keys_file = config_.science_keys_file;
    options.providers_file = config_.science_providers_file;
    auto connector = std::make_unique<ScientificConnector>(std::move(options));
    if (Status loaded = connector->loadKeys(); !loaded)
        kLog.error("Cannot read API keys: ", loaded.message);
    else
        kLog.info("Loaded ", connector->keys().names().size(), " API keys from ",
                  connector->keysFile());
    if (Status loaded = connector->loadCustomProviders(); !loaded)
        kLog.error("Cannot read science providers: ", loaded.message);
    kLog.info("Scientific data connector initialized with ", connector->providerCount(),
              " providers");
    science_.replace(std::move(connector));
}

void DataDaemon::handleScienceApi(const HttpRequest& request) {
    // Rows are matched without the query string, which the rows read.
    const HttpRequest routed = withoutQuery(request);
    science_.with(
        [&](ScientificConnector& connector) {
            ScienceCall call{connector, request.path};
            serveRoutes(call, kScienceRoutes, routed, kNotFound);
        },
        [&] { sendError(request.fd, 503, kNotInitialized); });
}

}  // namespace vostra::data
