#include "science/scientific_connector.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "common/atomic_file.h"
#include "common/log.h"
#include "science/builtin_providers.h"
#include "science/science_url.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr vostra::Log kLog("[Science] ");
constexpr const char* kRateLimitExceeded = "Rate limit exceeded for ";
constexpr const char* kAcceptJson = "Accept: application/json";
constexpr const char* kDefaultKeyHeader = "X-API-Key";
constexpr const char* kDefaultKeyParameter = "api_key";
constexpr int kProvidersFileVersion = 1;
constexpr long kMaxRedirects = 5;
// Query parameters that commonly carry keys: masked in every reported URL,
// whichever provider it was for.
const std::vector<std::string> kKeyParameters = {"api_key", "apikey", "apiKey",
                                                 "key",     "token",  "access_token"};

bool isHttpUrl(const std::string& url) {
    return url.starts_with("http://") || url.starts_with("https://");
}

// Control characters and blanks would let an endpoint smuggle a second
// request line or header into the transfer.
bool isSafeEndpoint(std::string_view endpoint) {
    return std::ranges::none_of(endpoint, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7f;
    });
}

bool isMethod(std::string_view method) {
    return !method.empty() &&
           std::ranges::all_of(method, [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Ids of providers added over the API are lower-case, like the built-in
// ones, so that none can take the name of a key variable ("NASA_API_KEY")
// and be handed that key.
bool isProviderId(std::string_view id) {
    return !id.empty() && std::ranges::all_of(id, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    });
}

// `text` with each "{name}" replaced by escape(value); nothing when some
// placeholder has no value. Braces around anything but a name (JSON) stay.
template <typename Escape>
std::optional<std::string> fillPlaceholders(std::string_view text,
                                            const std::map<std::string, std::string>& values,
                                            Escape&& escape) {
    std::string out;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t open = text.find('{', at);
        if (open == std::string_view::npos) break;
        const std::size_t close = text.find('}', open + 1);
        if (close == std::string_view::npos) break;
        const std::string_view name = text.substr(open + 1, close - open - 1);
        const bool is_name = !name.empty() && std::ranges::all_of(name, [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.';
        });
        out.append(text.substr(at, open - at));
        if (!is_name) {
            out += '{';
            at = open + 1;
            continue;
        }
        auto value = values.find(std::string(name));
        if (value == values.end()) return std::nullopt;
        out += escape(value->second);
        at = close + 1;
    }
    out.append(text.substr(at));
    return out;
}

std::string asIs(const std::string& value) {
    return value;
}
std::string jsonEscaped(const std::string& value) {
    const std::string quoted = json(value).dump();
    return quoted.substr(1, quoted.size() - 2);
}

const json* atPath(const json& root, std::string_view path) {
    const json* node = &root;
    while (!path.empty()) {
        const std::size_t dot = path.find('.');
        const std::string key(path.substr(0, dot));
        if (!node->is_object()) return nullptr;
        auto it = node->find(key);
        if (it == node->end()) return nullptr;
        node = &*it;
        path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
    }
    return node;
}

// A field as one line of text: services give titles as strings, numbers or
// lists of strings.
std::string fieldText(const json& item, const std::string& path) {
    if (path.empty()) return item.is_string() ? item.get<std::string>() : "";
    const json* field = atPath(item, path);
    if (!field || field->is_null()) return "";
    if (field->is_string()) return field->get<std::string>();
    if (field->is_array() && !field->empty() && (*field)[0].is_string())
        return (*field)[0].get<std::string>();
    return field->dump();
}

json extractResults(const json& data, const ResponseMapping& mapping) {
    const json* list = atPath(data, mapping.results_path);
    if (!list || !list->is_array()) return nullptr;
    json results = json::array();
    for (const json& item : *list) {
        json entry = json::object();
        const std::pair<const char*, const std::string*> fields[] = {
            {"id", &mapping.id_field},
            {"title", &mapping.title_field},
            {"description", &mapping.description_field},
            {"url", &mapping.url_field}};
        for (const auto& [name, path] : fields)
            if (!path->empty() || (std::string_view(name) == "id" && item.is_string()))
                entry[name] = fieldText(item, *path);
        results.push_back(std::move(entry));
    }
    return results;
}

// Basic credentials ("user:password") as the header carries them.
std::string base64(std::string_view text) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += 3) {
        uint32_t bits = static_cast<unsigned char>(text[at]) << 16;
        if (at + 1 < text.size()) bits |= static_cast<unsigned char>(text[at + 1]) << 8;
        if (at + 2 < text.size()) bits |= static_cast<unsigned char>(text[at + 2]);
        out += kAlphabet[(bits >> 18) & 63];
        out += kAlphabet[(bits >> 12) & 63];
        out += at + 1 < text.size() ? kAlphabet[(bits >> 6) & 63] : '=';
        out += at + 2 < text.size() ? kAlphabet[bits & 63] : '=';
    }
    return out;
}

std::string joined(const std::map<std::string, std::string>& params) {
    std::string text;
    for (const auto& [name, value] : params)
        text += escapeUrlComponent(name) + "=" + escapeUrlComponent(value) + "&";
    return text;
}

}  // namespace

ScientificConnector::ScientificConnector(Options options)
    : keys_(options.keys_file.empty() ? defaultScienceKeysFile() : options.keys_file,
            std::move(options.environment)),
      providers_file_(options.providers_file),
      limiter_(options.clock),
      cache_(options.cache, options.clock) {
    if (providers_file_.empty())
        providers_file_ =
            (std::filesystem::path(keys_.file()).parent_path() / kProvidersFileName).string();
    initializeProviders();
    initializeBuiltinQueries();
}

ScientificConnector::ScientificConnector() : ScientificConnector(Options{}) {}

void ScientificConnector::initializeProviders() {
    std::vector<ScienceProvider> providers = builtinProviders();
    std::set<std::string> ids;
    for (const ScienceProvider& provider : providers)
        ids.insert(provider.id);
    std::unique_lock lock(mutex_);
    providers_ = std::move(providers);
    builtin_ids_ = std::move(ids);
    custom_records_.clear();
}

void ScientificConnector::initializeBuiltinQueries() {
    std::unique_lock lock(mutex_);
    for (auto& [id, query] : builtinQueries()) {
        auto it = std::ranges::find(providers_, id, &ScienceProvider::id);
        if (it == providers_.end()) continue;
        std::erase_if(it->queries, [&](const QueryTemplate& q) { return q.name == query.name; });
        it->queries.push_back(std::move(query));
    }
}

Status ScientificConnector::loadKeys() {
    return keys_.load();
}

Status ScientificConnector::saveKeys(const std::map<std::string, std::string>& changes) {
    return keys_.save(changes);
}

std::string ScientificConnector::keyName(const ScienceProvider& provider) {
    return provider.auth.env_var.empty() ? provider.id : provider.auth.env_var;
}

Status ScientificConnector::setProviderKey(const std::string& id, const std::string& key) {
    const std::optional<ScienceProvider> provider = getProvider(id);
    if (!provider) return Status::failure(ErrorKind::NotFound, kUnknownProvider + id);
    return keys_.save({{keyName(*provider), key}});
}

json ScientificConnector::keyReport() const {
    json providers = json::array();
    for (const ScienceProvider& provider : listProviders()) {
        if (!provider.auth.needsKey() && provider.auth.env_var.empty()) continue;
        const std::string name = keyName(provider);
        const std::string source =
            provider.auth.env_var.empty() ? (keys_.stored(name) ? "file" : "") : keys_.source(name);
        providers.push_back({{"id", provider.id},
                             {"key_name", name},
                             {"required", provider.auth.needsKey()},
                             {"present", !source.empty()},
                             {"source", source}});
    }
    return {{"keys", keys_.names()}, {"providers", providers}};
}

std::vector<ScienceProvider> ScientificConnector::listProviders() const {
    std::shared_lock lock(mutex_);
    return providers_;
}

std::optional<ScienceProvider> ScientificConnector::getProvider(const std::string& id) const {
    std::shared_lock lock(mutex_);
    auto it = std::ranges::find(providers_, id, &ScienceProvider::id);
    if (it == providers_.end()) return std::nullopt;
    return *it;
}

std::size_t ScientificConnector::providerCount() const {
    std::shared_lock lock(mutex_);
    return providers_.size();
}

bool ScientificConnector::isAvailable(const ScienceProvider& provider) const {
    if (!provider.enabled) return false;
    return !provider.auth.needsKey() || keyFor(provider).has_value();
}

Status ScientificConnector::loadCustomProviders() {
    std::ifstream in(providers_file_);
    if (!in) return Status::success();
    const json parsed = json::parse(in, nullptr, false);
    const auto records = parsed.is_object() ? parsed.find("providers") : parsed.end();
    if (!parsed.is_object() || records == parsed.end() || !records->is_array())
        return Status::failure(ErrorKind::Invalid, "Not a providers file: " + providers_file_);
    std::unique_lock lock(mutex_);
    std::vector<ScienceProvider> providers = providers_;
    try {
        for (const json& record : *records) {
            const std::string id = record.at("id").get<std::string>();
            auto it = std::ranges::find(providers, id, &ScienceProvider::id);
            if (it != providers.end()) {
                *it = providerFromJson(record, *it);
            } else {
                ScienceProvider added = providerFromJson(record);
                if (!isHttpUrl(added.base_url))
                    return Status::failure(ErrorKind::Invalid,
                                           "Invalid base URL for provider " + id);
                providers.push_back(std::move(added));
            }
        }
    } catch (const json::exception& error) {
        return Status::failure(ErrorKind::Invalid,
                               std::string(error.what()) + " in " + providers_file_);
    }
    providers_ = std::move(providers);
    custom_records_ = records->get<std::vector<json>>();
    return Status::success();
}

Status ScientificConnector::saveCustomProviders() const {
    std::shared_lock lock(mutex_);
    const json file = {{"version", kProvidersFileVersion}, {"providers", custom_records_}};
    return writeFileAtomically(providers_file_, file.dump(2), 0600);
}

Status ScientificConnector::addCustomProvider(const json& record) {
    if (!record.is_object())
        return Status::failure(ErrorKind::Invalid, "Provider must be a JSON object");
    ScienceProvider provider;
    try {
        provider = providerFromJson(record);
    } catch (const json::exception& error) {
        return Status::failure(ErrorKind::Invalid, error.what());
    }
    if (!isProviderId(provider.id))
        return Status::failure(ErrorKind::Invalid, "Invalid provider id: " + provider.id);
    if (!isHttpUrl(provider.base_url))
        return Status::failure(ErrorKind::Invalid, "Invalid base URL for provider " + provider.id);
    // A provider named over the API must not be able to read the daemon's
    // environment, or another provider's key, and send it to its own URL.
    json kept = record;
    provider.auth.env_var.clear();
    if (kept.contains("auth") && kept["auth"].is_object()) kept["auth"].erase("env_var");

    std::unique_lock lock(mutex_);
    if (std::ranges::find(providers_, provider.id, &ScienceProvider::id) != providers_.end())
        return Status::failure(ErrorKind::Conflict, "Provider already exists: " + provider.id);
    providers_.push_back(provider);
    custom_records_.push_back(kept);
    lock.unlock();
    if (Status saved = saveCustomProviders(); !saved) {
        lock.lock();
        std::erase_if(providers_, [&](const ScienceProvider& p) { return p.id == provider.id; });
        std::erase_if(custom_records_,
                      [&](const json& r) { return r.value("id", "") == provider.id; });
        return saved;
    }
    return Status::success();
}

Status ScientificConnector::removeCustomProvider(const std::string& id) {
    std::unique_lock lock(mutex_);
    if (builtin_ids_.contains(id))
        return Status::failure(ErrorKind::Refused, "Built-in provider cannot be removed: " + id);
    auto record = std::ranges::find_if(custom_records_,
                                       [&](const json& r) { return r.value("id", "") == id; });
    if (record == custom_records_.end())
        return Status::failure(ErrorKind::NotFound, kUnknownProvider + id);
    const json removed = *record;
    auto provider = std::ranges::find(providers_, id, &ScienceProvider::id);
    const std::ptrdiff_t place = provider - providers_.begin();
    const ScienceProvider kept = *provider;
    custom_records_.erase(record);
    providers_.erase(provider);
    lock.unlock();
    if (Status saved = saveCustomProviders(); !saved) {
        lock.lock();
        custom_records_.push_back(removed);
        providers_.insert(providers_.begin() + std::min<std::ptrdiff_t>(place, providers_.size()),
                          kept);
        return saved;
    }
    return Status::success();
}

std::optional<std::string> ScientificConnector::keyFor(const ScienceProvider& provider) const {
    // Providers without a variable of their own read only the key file.
    return provider.auth.env_var.empty() ? keys_.stored(provider.id)
                                         : keys_.lookup(provider.auth.env_var);
}

std::vector<std::string> ScientificConnector::getAuthHeaders(
    const ScienceProvider& provider) const {
    const ProviderAuth& auth = provider.auth;
    if (!auth.needsKey()) return {};
    const std::optional<std::string> key = keyFor(provider);
    if (!key) return {};
    switch (auth.type) {
        case AuthType::Bearer:
            return {"Authorization: Bearer " + *key};
        case AuthType::Basic:
            return {"Authorization: Basic " + base64(*key)};
        case AuthType::ApiKey:
            if (!auth.param_name.empty()) return {};
            return {(auth.header_name.empty() ? kDefaultKeyHeader : auth.header_name) + ": " +
                    *key};
        case AuthType::None:
            break;
    }
    return {};
}

bool ScientificConnector::checkRateLimit(const ScienceProvider& provider) {
    return limiter_.acquire(provider.id, provider.rate_limit_rpm);
}

std::string ScientificConnector::getCacheKey(const ScienceRequest& request) {
    // Every part escaped and "\n"-separated, so no two requests share a key.
    return request.provider + "\n" + request.method + "\n" + escapeUrlComponent(request.endpoint) +
           "\n" + escapeUrlComponent(request.query) + "\n" + std::to_string(request.limit) + "\n" +
           joined(request.params) + "\n" + request.body;
}

ScienceResult ScientificConnector::execute(const ScienceRequest& request) {
    const std::optional<ScienceProvider> provider = getProvider(request.provider);
    if (!provider)
        return ScienceResult::failure(ErrorKind::NotFound, kUnknownProvider + request.provider);

    std::map<std::string, std::string> params = request.params;
    if (!request.query.empty()) params.try_emplace("query", request.query);
    if (request.limit > 0) params.try_emplace("limit", std::to_string(request.limit));
    if (const QueryTemplate* query = provider->findQuery(request.endpoint))
        return runTemplate(*provider, *query, params, request.timeout_ms, getCacheKey(request));

    if (!isSafeEndpoint(request.endpoint))
        return ScienceResult::failure(ErrorKind::Invalid, "Invalid endpoint: " + request.endpoint);
    Call call;
    call.method = request.method.empty() ? "GET" : request.method;
    if (!isMethod(call.method))
        return ScienceResult::failure(ErrorKind::Invalid, "Invalid method: " + call.method);
    call.url = buildUrl(provider->base_url, request.endpoint, params);
    call.body = request.body;
    call.timeout_ms = request.timeout_ms;
    return perform(*provider, std::move(call), getCacheKey(request));
}

ScienceResult ScientificConnector::executeQuery(
    const std::string& id, const std::string& name,
    const std::map<std::string, std::string>& parameters, int timeout_ms) {
    const std::optional<ScienceProvider> provider = getProvider(id);
    if (!provider) return ScienceResult::failure(ErrorKind::NotFound, kUnknownProvider + id);
    const QueryTemplate* query = provider->findQuery(name);
    if (!query)
        return ScienceResult::failure(ErrorKind::NotFound,
                                      "Unknown query template: " + name + " for provider " + id);
    ScienceRequest request;
    request.provider = id;
    request.endpoint = name;
    request.params = parameters;
    return runTemplate(*provider, *query, parameters, timeout_ms, getCacheKey(request));
}

ScienceResult ScientificConnector::runTemplate(const ScienceProvider& provider,
                                               const QueryTemplate& query,
                                               const std::map<std::string, std::string>& parameters,
                                               int timeout_ms, const std::string& cache_key) {
    std::map<std::string, std::string> values = parameters;
    values.try_emplace("limit", std::to_string(query.max_results));
    const auto missing = [&](std::string_view part) {
        return ScienceResult::failure(ErrorKind::Invalid, "Missing parameter for " +
                                                              std::string(part) +
                                                              " of query template " + query.name +
                                                              " for provider " + provider.id);
    };

    const std::optional<std::string> endpoint =
        fillPlaceholders(query.endpoint, values, escapeUrlComponent);
    if (!endpoint) return missing("endpoint " + query.endpoint);
    std::map<std::string, std::string> params;
    for (const auto& [name, pattern] : query.params) {
        if (auto given = parameters.find(name); given != parameters.end()) {
            params[name] = given->second;
        } else if (std::optional<std::string> value = fillPlaceholders(pattern, values, asIs)) {
            params[name] = *value;
        }
    }
    Call call;
    call.method = query.method;
    call.url = buildUrl(provider.base_url, *endpoint, params);
    call.timeout_ms = timeout_ms;
    call.mapping = query.response;
    for (const auto& [name, value] : query.headers)
        call.headers.push_back(name + ": " + value);
    if (!query.body_template.empty()) {
        const std::optional<std::string> body =
            fillPlaceholders(query.body_template, values, jsonEscaped);
        if (!body) return missing("body");
        call.body = *body;
    }
    return perform(provider, std::move(call), cache_key);
}

ScienceResult ScientificConnector::testProvider(const std::string& id) {
    const std::optional<ScienceProvider> provider = getProvider(id);
    if (!provider) return ScienceResult::failure(ErrorKind::NotFound, kUnknownProvider + id);
    Call call;
    call.url = provider->base_url;
    call.timeout_ms = 10000;
    return perform(*provider, std::move(call), "");
}

ScienceResult ScientificConnector::perform(const ScienceProvider& provider, Call call,
                                           const std::string& cache_key) {
    if (!provider.enabled)
        return ScienceResult::failure(ErrorKind::Refused, "Provider disabled: " + provider.id);
    const ProviderAuth& auth = provider.auth;
    const std::optional<std::string> key = keyFor(provider);
    if (auth.needsKey() && !key) {
        return ScienceResult::failure(ErrorKind::Refused,
                                      auth.env_var.empty()
                                          ? "API key required for " + provider.id +
                                                ". Save it under the key name " + provider.id
                                          : "API key required for " + provider.id +
                                                ". Set environment variable " + auth.env_var);
    }

    call.headers.insert(call.headers.begin(), kAcceptJson);
    const std::vector<std::string> auth_headers = getAuthHeaders(provider);
    call.headers.insert(call.headers.end(), auth_headers.begin(), auth_headers.end());
    if (key && auth.type == AuthType::ApiKey && !auth.param_name.empty())
        call.url = appendQueryParameter(std::move(call.url), auth.param_name, *key);

    const bool cacheable = !cache_key.empty() && call.method == "GET";
    if (cacheable) {
        if (std::optional<ScienceResult> hit = cache_.find(cache_key)) {
            hit->cached = true;
            return *hit;
        }
    }
    if (!checkRateLimit(provider))
        return ScienceResult::failure(ErrorKind::QuotaExceeded, kRateLimitExceeded + provider.id);

    // A key in a header must not follow a redirect to another host.
    ScienceResult result = httpRequest(call.method, call.url, call.headers, call.body,
                                       call.timeout_ms, auth_headers.empty());
    if (!result.success) {
        std::vector<std::string> names = kKeyParameters;
        names.push_back(auth.param_name.empty() ? kDefaultKeyParameter : auth.param_name);
        result.error = maskSecrets(std::move(result.error), names,
                                   key ? std::vector{*key} : std::vector<std::string>{});
        kLog.error(provider.id, ": ", result.error);
        return result;
    }
    if (!call.mapping.results_path.empty())
        result.results = extractResults(result.data, call.mapping);
    if (cacheable) cache_.store(cache_key, result, result.bytes);
    return result;
}

ScienceResult ScientificConnector::httpRequest(const std::string& method, const std::string& url,
                                               const std::vector<std::string>& headers,
                                               const std::string& body, int timeout_ms,
                                               bool follow_redirects) const {
    const auto started = std::chrono::steady_clock::now();
    std::string response;
    const CurlHandlePool::Lease lease = curl_pool_.lease(url, response, 0);
    if (!lease) return ScienceResult::failure(ErrorKind::Internal, "Failed to initialize CURL");
    CURL* curl = lease.get();
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(timeout_ms > 0 ? timeout_ms : 30000));
    curl_easy_setopt(curl, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, follow_redirects ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
    if (method == "GET") {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        if (method != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        if (method == "POST" || !body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        }
    }
    std::vector<std::string> lines = headers;
    const bool typed = std::ranges::any_of(lines, [](const std::string& line) {
        std::string lower = line.substr(0, 13);
        std::ranges::transform(lower, lower.begin(),
                               [](unsigned char c) { return std::tolower(c); });
        return lower == "content-type:";
    });
    if (!body.empty() && !typed) lines.push_back("Content-Type: application/json");
    CurlHeaders list;
    for (const std::string& line : lines) {
        curl_slist* longer = curl_slist_append(list.get(), line.c_str());
        if (!longer)
            return ScienceResult::failure(ErrorKind::Internal, "Failed to initialize CURL");
        static_cast<void>(list.release());
        list.reset(longer);
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list.get());

    const CURLcode code = curl_easy_perform(curl);
    ScienceResult result;
    result.response_time_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - started)
                                  .count();
    const std::string shown = maskSecrets(url, kKeyParameters, {});
    if (code != CURLE_OK) {
        result.kind = ErrorKind::Unavailable;
        result.error = "Request to " + shown + " failed: " + curl_easy_strerror(code) +
                       " (curl error " + std::to_string(static_cast<int>(code)) + ")";
        return result;
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status_code);
    if (result.status_code >= 400) {
        result.kind = ErrorKind::Internal;
        result.error = "HTTP " + std::to_string(result.status_code) + " for " + shown;
        return result;
    }
    result.success = true;
    result.bytes = response.size();
    json parsed = json::parse(response, nullptr, false);
    result.data = parsed.is_discarded() ? json(std::move(response)) : std::move(parsed);
    return result;
}

}  // namespace vostra::data
