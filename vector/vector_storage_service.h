// VectorStorageService: the vector store as the rest of the daemon sees it.
// It owns one backend per tenant and namespace (memory, or one SQLite file
// each under the storage path), the embedding provider, the namespace table
// and the configuration, both persisted as JSON beside the databases. It
// cuts ingested text into chunks, embeds and stores them, and answers
// similarity and text searches. DataDaemon owns the one instance while
// vector storage is enabled; knows nothing of HTTP.
//
// Thread-safety: every method may be called from any thread once
// initialize() has returned. One mutex guards the backend map and the
// namespace table and is held only to look up or create a backend and to
// change or save the table; another guards the configuration and the
// provider. Backends and the provider are shared with the calls using them,
// so replacing or dropping one never pulls it from under a running call.
// Counters are atomic. Failures are returned as values, never thrown.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "vector/vector_add_request.h"
#include "vector/vector_add_response.h"
#include "vector/vector_namespace.h"
#include "vector/vector_search_request.h"
#include "vector/vector_search_response.h"
#include "vector/vector_storage_config.h"

namespace vostra::data {

class IVectorBackend;
class IEmbeddingProvider;

class VectorStorageService {
public:
    static constexpr const char* kConfigFile = "/vector_config.json";
    static constexpr const char* kNamespacesFile = "/namespaces.json";

    // What a PUT of the configuration asks of the service's owner.
    struct ConfigChange {
        enum class Action {
            None,         // save the settings; nothing else changes
            Start,        // create and initialise a service with `config`
            Stop,         // shut the running service down, then save `config`
            Restart,      // the storage path or backend changed under a running service
            Reconfigure,  // updateConfig(config) on the running service
        };
        Action action = Action::None;
        VectorStorageConfig config;  // the current settings with the body merged in
        bool changed = false;
        std::string error;  // why the body cannot be applied; empty when it can
    };

    VectorStorageService();
    ~VectorStorageService();
    VectorStorageService(const VectorStorageService&) = delete;
    VectorStorageService& operator=(const VectorStorageService&) = delete;

    // Creates the storage path, the embedding provider (the service goes on
    // without one when that fails), loads the namespace table and saves the
    // configuration. False only when the storage path cannot be created.
    // Call before sharing the service between threads.
    bool initialize(const VectorStorageConfig& config);
    // Saves the namespace table and releases backends and provider. Later
    // calls fail as they would before initialize().
    void shutdown();
    // True between a successful initialize() and shutdown().
    bool isInitialized() const { return initialized_.load(); }

    // The settings a daemon starts with: the persisted file under
    // `vector_path` when there is one (it holds what the API last set),
    // else the defaults with `vector_path` and `embedding`; enabled when
    // `enable` or the file says so. `from_file` tells which.
    static VectorStorageConfig startupConfig(const std::string& vector_path,
                                             const EmbeddingConfig& embedding, bool enable,
                                             bool& from_file);
    // What is shown in place of a stored secret, and taken back as "keep it".
    static constexpr const char* kMaskedSecret = "********";
    // The settings as answers show them: the embedding api_key masked.
    static nlohmann::json publicJson(const VectorStorageConfig& config);
    // Merges `body` (a JSON object) into `current` and says what the owner
    // must do, `running` telling whether a service exists now. An api_key
    // equal to kMaskedSecret keeps the current key.
    static ConfigChange planConfigChange(const VectorStorageConfig& current, bool running,
                                         const std::string& body);
    // The persisted configuration under `storage_path`, if readable.
    static std::optional<VectorStorageConfig> loadConfigFile(const std::string& storage_path);
    // Writes `config` to its storage path (created if missing), replacing the
    // file atomically. False, with the reason printed, on failure.
    static bool saveConfigFile(const VectorStorageConfig& config);

    // A copy of the current settings.
    VectorStorageConfig getConfig() const;
    // Replaces the settings; a changed embedding section recreates the
    // provider. Backends already open keep their path. Returns whether the
    // settings were saved.
    bool updateConfig(const VectorStorageConfig& config);
    // Replaces only the embedding settings (for a provider found in the
    // cluster); otherwise as updateConfig.
    bool updateEmbeddingConfig(const EmbeddingConfig& embedding);
    // Adopts `provider` (may be null: no provider) without touching the
    // settings; calls already running finish with the old one.
    void setEmbeddingProvider(std::unique_ptr<IEmbeddingProvider> provider);
    // Local for any type but Ollama; never null.
    static std::unique_ptr<IEmbeddingProvider> createEmbeddingProvider(
        const EmbeddingConfig& config);

    // "<tenant>/<namespace>".
    static std::string getBackendKey(const std::string& tenant, const std::string& ns);
    // Why `id` cannot name a tenant or namespace (it becomes part of a file
    // name: vostra::fileNameProblem), or empty when it can.
    static std::string idProblem(std::string_view id);
    // The open backend of (tenant, namespace), opened or created on first
    // use; null when the ids are unusable, the service is not initialised,
    // the backend cannot start, or its file already belongs to another
    // tenant's namespace (ids joined with "_" can collide; the file records
    // its owner, so this holds across restarts).
    std::shared_ptr<IVectorBackend> getOrCreateBackend(const std::string& tenant,
                                                       const std::string& ns);
    // A new backend for (tenant, namespace), initialised but not registered.
    std::shared_ptr<IVectorBackend> createBackend(const std::string& tenant,
                                                  const std::string& ns) const;

    // Records a namespace and saves the table; one already recorded is left
    // as it is (success). Fails with "Failed to create namespace" (Invalid)
    // for unusable ids or a backend that cannot start, with a message naming
    // the other namespace (Conflict) when both would use one database file,
    // and with "Failed to save namespaces" (Internal, nothing changed).
    Status tryCreateNamespace(const std::string& tenant, const std::string& ns,
                              const std::string& name, const std::string& description);
    bool createNamespace(const std::string& tenant, const std::string& ns, const std::string& name,
                         const std::string& description);
    // Drops the backend, its database file and its record. Fails with
    // "Namespace not found" (NotFound) when none of them existed, and with
    // "Failed to save namespaces" (Internal, nothing changed).
    Status tryDeleteNamespace(const std::string& tenant, const std::string& ns);
    bool deleteNamespace(const std::string& tenant, const std::string& ns);
    // Records with their counts brought up to date for open backends.
    std::optional<VectorNamespace> getNamespace(const std::string& tenant, const std::string& ns);
    std::vector<VectorNamespace> listNamespaces(const std::string& tenant);

    // Stores the documents, giving ids to those without and, when asked,
    // embedding in one batch those without a vector. Fails with "Failed to
    // get vector backend", "Embedding generation failed" (no provider, or
    // a vector count that differs from the text count; nothing is stored)
    // or "Failed to add documents to backend".
    VectorAddResponse addDocuments(const VectorAddRequest& request);
    // Chunks `text` and adds one document per chunk, all with `source` and
    // `metadata`. Empty text adds nothing and succeeds.
    VectorAddResponse addText(const std::string& tenant, const std::string& ns,
                              const std::string& text, const std::string& source,
                              const std::map<std::string, std::string>& metadata);
    std::vector<std::string> chunkText(const std::string& text) const;

    // Fails with "Namespace not found" when no backend can be had, "No query
    // embedding provided" when there is neither a vector nor text and a
    // provider, and (Invalid) "Invalid filter key: " + key when a SQLite
    // backend could not use the key.
    VectorSearchResponse search(const VectorSearchRequest& request);
    // As the backend's textSearch; fails like search.
    VectorSearchResponse textSearch(const std::string& tenant, const std::string& ns,
                                    const std::string& query, int32_t limit,
                                    const std::string& field);

    // Document operations on (tenant, namespace), opening its backend when
    // needed; unusable ids or a backend that cannot start find nothing.
    std::optional<VectorDocument> getDocument(const std::string& tenant, const std::string& ns,
                                              const std::string& id);
    // How many of `ids` were stored and are now gone.
    int64_t deleteDocuments(const std::string& tenant, const std::string& ns,
                            const std::vector<std::string>& ids);
    // How many documents with `source` were removed.
    int64_t deleteBySource(const std::string& tenant, const std::string& ns,
                           const std::string& source);
    // Distinct sources, ascending.
    std::vector<std::string> listSources(const std::string& tenant, const std::string& ns);

    // Through the provider: an empty vector, or nothing for the batch, when
    // there is none. The batch counts towards the embedding time.
    std::vector<float> generateEmbedding(const std::string& text);
    std::optional<std::vector<std::vector<float>>> generateEmbeddings(
        const std::vector<std::string>& texts);
    bool hasEmbeddingProvider() const;

    // "backend", "embedding_provider" ("none" without one),
    // "embedding_dimension", "namespace_count" and the counters.
    nlohmann::json getMetrics() const;
    // "status" ("healthy", or "stopped" when not initialised), "enabled",
    // "backend", "embedding_available" (asks the provider, which may take
    // seconds) and "embedding_provider".
    nlohmann::json getHealth() const;

private:
    std::shared_ptr<IEmbeddingProvider> provider() const;
    // getOrCreateBackend with the reason for a null answer in `why`
    // (Conflict for a file that belongs to another namespace, else
    // NotFound); with `record`, a namespace opened for the first time is
    // recorded as if created.
    std::shared_ptr<IVectorBackend> openBackend(const std::string& tenant, const std::string& ns,
                                                bool record, Status& why);
    VectorNamespace newRecord(const std::string& tenant, const std::string& ns,
                              const std::string& name, const std::string& description) const;
    static VectorSearchResponse backendFailure(const Status& why);
    std::string databasePath(const std::string& tenant, const std::string& ns) const;
    // The key of another namespace whose database would be the same file.
    std::string fileOwnerLocked(const std::string& key, const std::string& path) const;
    void loadNamespaceMeta();
    // False (printed) when the table could not be written.
    bool saveNamespaceMetaLocked();
    void refreshCounts(std::vector<VectorNamespace>& records);

    std::atomic<bool> initialized_{false};

    mutable std::mutex config_mutex_;
    VectorStorageConfig config_;
    std::shared_ptr<IEmbeddingProvider> provider_;

    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<IVectorBackend>> backends_;
    std::map<std::string, VectorNamespace> namespaces_;

    std::atomic<int64_t> documents_added_{0};
    std::atomic<int64_t> searches_{0};
    std::atomic<double> embedding_time_ms_{0.0};
    std::atomic<double> search_time_ms_{0.0};
};

}  // namespace vostra::data
