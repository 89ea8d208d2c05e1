// ScientificConnector: the gateway from the cluster's agents to public
// scientific data services. It owns the provider table (built-in rows,
// then the operator's custom-providers file over them), the API keys, the
// per-provider rate limits and the response cache, and makes every call
// through libcurl.
//
// Failures are values: every call answers a ScienceResult, nothing is
// thrown. A key never appears in a result, an error text or a log line:
// texts that carry a URL have the key's query parameter masked ("***").
//
// Thread-safety: after construction every method may be called from many
// threads at once; each request uses a libcurl handle of its own. Not
// copyable.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

#include "common/curl_handle.h"
#include "common/status.h"
#include "science/rate_limiter.h"
#include "science/response_cache.h"
#include "science/science_keys.h"
#include "science/science_provider.h"
#include "science/science_request.h"

namespace vostra::data {

class ScientificConnector {
public:
    struct Options {
        std::string keys_file;       // empty: defaultScienceKeysFile()
        std::string providers_file;  // empty: "science_providers.json" beside the key file
        ScienceKeys::Environment environment = ScienceKeys::processEnvironment;
        ResponseCache::Limits cache;
        // The steady clock of rate limits and cache lifetimes.
        RateLimiter::Clock clock = [] { return std::chrono::steady_clock::now(); };
    };

    static constexpr const char* kUserAgent = "Vostra-DataWorker/4.1.0";
    static constexpr const char* kProvidersFileName = "science_providers.json";
    static constexpr const char* kUnknownProvider = "Unknown provider: ";

    // Fills the built-in table and its templates; loads no file (see
    // loadKeys and loadCustomProviders).
    explicit ScientificConnector(Options options);
    ScientificConnector();
    ScientificConnector(const ScientificConnector&) = delete;
    ScientificConnector& operator=(const ScientificConnector&) = delete;

    // The table of built-in providers, replacing whatever was there.
    void initializeProviders();
    // Attaches the built-in named templates to their providers.
    void initializeBuiltinQueries();

    // Reads the key file; a missing file is no keys. See ScienceKeys.
    Status loadKeys();
    const ScienceKeys& keys() const { return keys_; }
    const std::string& keysFile() const { return keys_.file(); }
    const std::string& providersFile() const { return providers_file_; }
    // Sets (empty: removes) keys and writes the key file; the next request
    // uses them. Changes nothing when the file cannot be written.
    Status saveKeys(const std::map<std::string, std::string>& changes);
    // Saves `key` under the key name of provider `id` (NotFound without one).
    Status setProviderKey(const std::string& id, const std::string& key);
    // The name a provider's key is saved under: its environment variable,
    // else its id (providers added over the API read no environment).
    static std::string keyName(const ScienceProvider& provider);
    // {"keys": [names in the key file], "providers": [{"id", "key_name",
    // "required", "present", "source"}]} for every provider that takes a
    // key. Never a value.
    nlohmann::json keyReport() const;

    // Providers in table order (copies).
    std::vector<ScienceProvider> listProviders() const;
    std::optional<ScienceProvider> getProvider(const std::string& id) const;
    std::size_t providerCount() const;
    // Enabled, and holding its key when it needs one.
    bool isAvailable(const ScienceProvider& provider) const;

    // Reads the custom-providers file: each record with the id of a known
    // provider changes only the keys it names (e.g. "base_url", to point
    // a service at a mirror); others are added. A missing file is no
    // records; a malformed one fails (Invalid) and changes nothing.
    Status loadCustomProviders();
    // Writes the custom records as {"version": 1, "providers": [...]},
    // each as it was given (mode 0600).
    Status saveCustomProviders() const;
    // Adds a provider from its JSON form and saves the file. It may not
    // take an id already in use (Conflict), needs a lower-case id and an
    // http(s) base URL (Invalid), and reads its key only from the key file. Nothing
    // changes when the file cannot be written.
    Status addCustomProvider(const nlohmann::json& record);
    // Removes a provider added by the custom-providers file or the API
    // (NotFound for others, Refused for built-ins) and saves the file.
    Status removeCustomProvider(const std::string& id);

    // One call of a provider's endpoint, or of its template when the
    // endpoint names one. Unknown provider (NotFound), missing key
    // (Refused), exhausted rate limit (QuotaExceeded), transport failure
    // (Unavailable) and HTTP error status (Internal) come back as failures
    // with their texts. GET answers are cached.
    ScienceResult execute(const ScienceRequest& request);
    // Runs provider `id`'s template `name`, its placeholders filled from
    // `parameters` (which also override template parameters of their name).
    ScienceResult executeQuery(const std::string& id, const std::string& name,
                               const std::map<std::string, std::string>& parameters,
                               int timeout_ms = 30000);
    // Asks the provider's base URL, not cached: success when it answers
    // below 400.
    ScienceResult testProvider(const std::string& id);

    // Convenience calls, each a fixed endpoint of one service. Dates are
    // "%Y-%m-%d", times "%Y-%m-%dT%H:%M:%S" (UTC); empty ones mean today,
    // or for earthquakes the last day. A malformed one fails (Invalid).
    ScienceResult nasaApod(const std::string& date);
    ScienceResult nasaNeo(const std::string& start_date, const std::string& end_date);
    ScienceResult nasaMarsRover(const std::string& rover, int sol, const std::string& camera);
    ScienceResult usgsEarthquakes(const std::string& start_time, const std::string& end_time,
                                  double min_magnitude, int limit);
    ScienceResult noaaWeather(double latitude, double longitude);
    ScienceResult ncbiSearch(const std::string& database, const std::string& term, int max_results);
    // Document summaries (JSON) of comma-separated ids.
    ScienceResult ncbiFetch(const std::string& database, const std::string& ids);
    // Full records in `rettype` ("fasta", "gb", "abstract", ...), as text.
    ScienceResult ncbiEfetch(const std::string& database, const std::string& ids,
                             const std::string& rettype);
    ScienceResult uniprotSearch(const std::string& query, int size);
    ScienceResult uniprotEntry(const std::string& accession);
    ScienceResult pdbSearch(const std::string& query, int rows);
    ScienceResult pdbEntry(const std::string& pdb_id);
    ScienceResult pubchemCompound(const std::string& name);
    ScienceResult pubchemProperties(const std::string& name, const std::string& properties);
    ScienceResult materialsSearch(const std::string& formula, int limit);
    ScienceResult materialsEntry(const std::string& material_id);
    ScienceResult cernDatasets(const std::string& query, int size);
    ScienceResult cernRecord(const std::string& record_id);
    ScienceResult gwoscEvents(const std::string& catalog);
    ScienceResult gwoscEvent(const std::string& name);

    // The header lines carrying `provider`'s key ("Authorization: Bearer
    // ...", "Authorization: Basic ...", or the named header, "X-API-Key"
    // by default); none without a key or when the key goes in the query.
    std::vector<std::string> getAuthHeaders(const ScienceProvider& provider) const;
    // Takes one request from the provider's budget; false when spent.
    bool checkRateLimit(const ScienceProvider& provider);
    static std::string getCacheKey(const ScienceRequest& request);
    // One HTTP exchange. A transport failure ends in " (curl error N)", an
    // error status reads "HTTP <status> for <url>"; the usual key
    // parameters of the URL are masked in both.
    ScienceResult httpRequest(const std::string& method, const std::string& url,
                              const std::vector<std::string>& headers, const std::string& body,
                              int timeout_ms, bool follow_redirects = true) const;

private:
    struct Call {
        std::string method = "GET";
        std::string url;
        std::vector<std::string> headers;
        std::string body;
        int timeout_ms = 30000;
        ResponseMapping mapping;
    };

    std::optional<std::string> keyFor(const ScienceProvider& provider) const;
    // Keys, budget, cache and the exchange, common to every kind of call;
    // an empty `cache_key` is not cached.
    ScienceResult perform(const ScienceProvider& provider, Call call, const std::string& cache_key);
    ScienceResult runTemplate(const ScienceProvider& provider, const QueryTemplate& query,
                              const std::map<std::string, std::string>& parameters, int timeout_ms,
                              const std::string& cache_key);
    // execute() of a fixed endpoint of one provider.
    ScienceResult call(const std::string& id, const std::string& endpoint,
                       std::map<std::string, std::string> params);

    ScienceKeys keys_;
    std::string providers_file_;
    RateLimiter limiter_;
    ResponseCache cache_;
    CurlHandlePool curl_pool_;

    mutable std::shared_mutex mutex_;  // guards the members below
    std::vector<ScienceProvider> providers_;
    std::set<std::string> builtin_ids_;
    std::vector<nlohmann::json> custom_records_;  // as given, for saving
};

}  // namespace vostra::data
