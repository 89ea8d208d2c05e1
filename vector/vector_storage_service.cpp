#include "vector/vector_storage_service.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/atomic_file.h"
#include "common/file_name.h"
#include "common/log.h"
#include "common/random_id.h"
#include "vector/embedding_provider.h"
#include "vector/local_embedding_provider.h"
#include "vector/memory_vector_backend.h"
#include "vector/ollama_embedding_provider.h"
#include "vector/sqlite_vector_backend.h"
#include "vector/text_chunker.h"
#include "vector/vector_backend.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr vostra::Log kLog("[VectorStorage] ");
constexpr int kDocumentIdDigits = 16;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string generateDocumentId() {
    return "doc-" + vostra::randomHex(kDocumentIdDigits);
}

std::string pathFor(const std::string& storage_path, const std::string& tenant,
                    const std::string& ns) {
    return storage_path + "/" + tenant + "_" + ns + ".db";
}

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) return std::nullopt;
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The namespace table holds no secrets: readable by all, as the databases
// beside it.
constexpr mode_t kPublicFileMode = 0644;
constexpr const char* kNamespaceNotFound = "Namespace not found";

bool saveStateFile(const std::string& path, const std::string& text, mode_t mode) {
    const vostra::Status saved = vostra::writeFileAtomically(path, text, mode);
    if (!saved) kLog.error(saved.message);
    return saved.ok();
}

bool allFinite(const std::vector<float>& values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

bool allZero(const std::vector<float>& values) {
    return std::all_of(values.begin(), values.end(), [](float v) { return v == 0.0f; });
}

std::string dumpJson(const nlohmann::json& json) {
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::pair<std::string, std::string> splitKey(const std::string& key) {
    const std::size_t slash = key.find('/');
    return {key.substr(0, slash), slash == std::string::npos ? "" : key.substr(slash + 1)};
}

}  // namespace

VectorStorageService::VectorStorageService() = default;
VectorStorageService::~VectorStorageService() = default;

bool VectorStorageService::initialize(const VectorStorageConfig& config) {
    if (initialized_.load()) return true;
    std::error_code error;
    fs::create_directories(config.storage_path, error);
    if (error) {
        kLog.error("Failed to create storage path: ", error.message());
        return false;
    }
    std::shared_ptr<IEmbeddingProvider> provider = createEmbeddingProvider(config.embedding);
    if (!provider) kLog.error("Failed to create embedding provider");
    {
        std::lock_guard lock(config_mutex_);
        config_ = config;
        provider_ = provider;
    }
    loadNamespaceMeta();
    initialized_.store(true);
    saveConfigFile(config);
    kLog.info("Initialized with backend: ", config.backendName(),
              ", embedding: ", provider ? provider->getName() : "none");
    return true;
}

void VectorStorageService::shutdown() {
    if (!initialized_.exchange(false)) return;
    std::vector<VectorNamespace> records;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [key, record] : namespaces_)
            records.push_back(record);
    }
    refreshCounts(records);
    {
        std::lock_guard lock(mutex_);
        for (const VectorNamespace& record : records)
            namespaces_[record.id] = record;
        saveNamespaceMetaLocked();
        for (auto& [key, backend] : backends_)
            backend->flush();
        backends_.clear();
    }
    {
        std::lock_guard lock(config_mutex_);
        provider_.reset();
    }
    kLog.info("Shutdown complete");
}

VectorStorageConfig VectorStorageService::startupConfig(const std::string& vector_path,
                                                        const EmbeddingConfig& embedding,
                                                        bool enable, bool& from_file) {
    std::optional<VectorStorageConfig> persisted = loadConfigFile(vector_path);
    from_file = persisted.has_value();
    VectorStorageConfig config;
    if (persisted) {
        config = *persisted;
    } else {
        config.embedding = embedding;
    }
    // The file is found where the daemon looked, wherever it says it lives.
    config.storage_path = vector_path;
    config.enabled = config.enabled || enable;
    return config;
}

nlohmann::json VectorStorageService::publicJson(const VectorStorageConfig& config) {
    nlohmann::json out = config.toJson();
    if (!config.embedding.api_key.empty()) out["embedding"]["api_key"] = kMaskedSecret;
    return out;
}

VectorStorageService::ConfigChange VectorStorageService::planConfigChange(
    const VectorStorageConfig& current, bool running, const std::string& body) {
    using Action = ConfigChange::Action;
    ConfigChange change;
    change.config = current;
    try {
        nlohmann::json changes = nlohmann::json::parse(body);
        // The mask an answer showed in place of the key means "keep it".
        if (changes.is_object() && changes.contains("embedding") &&
            changes["embedding"].is_object() &&
            changes["embedding"].value("api_key", nlohmann::json()) == kMaskedSecret)
            changes["embedding"].erase("api_key");
        change.config.merge(changes);
    } catch (const nlohmann::json::exception& error) {
        change.error = error.what();
        return change;
    }
    change.error = change.config.problem();
    if (!change.error.empty()) return change;

    const VectorStorageConfig& next = change.config;
    change.changed = next != current;
    if (next.enabled && !running) {
        change.action = Action::Start;
    } else if (!next.enabled && running) {
        change.action = Action::Stop;
    } else if (running &&
               (next.storage_path != current.storage_path || next.backend != current.backend)) {
        change.action = Action::Restart;
    } else if (running && change.changed) {
        change.action = Action::Reconfigure;
    }
    return change;
}

std::optional<VectorStorageConfig> VectorStorageService::loadConfigFile(
    const std::string& storage_path) {
    const std::string path = storage_path + kConfigFile;
    const std::optional<std::string> text = readFile(path);
    if (!text) return std::nullopt;
    try {
        return VectorStorageConfig::fromJson(nlohmann::json::parse(*text));
    } catch (const nlohmann::json::exception& error) {
        kLog.error("Ignoring unreadable ", path, ": ", error.what());
        return std::nullopt;
    }
}

bool VectorStorageService::saveConfigFile(const VectorStorageConfig& config) {
    std::error_code error;
    fs::create_directories(config.storage_path, error);
    if (error) {
        kLog.error("Failed to create storage path: ", error.message());
        return false;
    }
    // 0600: the embedding service's api_key is in it.
    return saveStateFile(config.storage_path + kConfigFile, dumpJson(config.toJson()), 0600);
}

VectorStorageConfig VectorStorageService::getConfig() const {
    std::lock_guard lock(config_mutex_);
    return config_;
}

bool VectorStorageService::updateConfig(const VectorStorageConfig& config) {
    std::lock_guard lock(config_mutex_);
    const bool embedding_changed = !(config.embedding == config_.embedding);
    config_ = config;
    if (embedding_changed) {
        provider_ = createEmbeddingProvider(config_.embedding);
        kLog.info("Embedding provider reconfigured: ", provider_->getName(),
                  " model=", config_.embedding.model);
    }
    // Under the lock, so the file always ends with the latest settings.
    return saveConfigFile(config_);
}

bool VectorStorageService::updateEmbeddingConfig(const EmbeddingConfig& embedding) {
    VectorStorageConfig config = getConfig();
    config.embedding = embedding;
    return updateConfig(config);
}

void VectorStorageService::setEmbeddingProvider(std::unique_ptr<IEmbeddingProvider> provider) {
    std::lock_guard lock(config_mutex_);
    provider_ = std::move(provider);
}

std::shared_ptr<IEmbeddingProvider> VectorStorageService::provider() const {
    std::lock_guard lock(config_mutex_);
    return provider_;
}

bool VectorStorageService::hasEmbeddingProvider() const {
    return provider() != nullptr;
}

std::unique_ptr<IEmbeddingProvider> VectorStorageService::createEmbeddingProvider(
    const EmbeddingConfig& config) {
    if (config.type != EmbeddingProviderType::Ollama)
        return std::make_unique<LocalEmbeddingProvider>(config.dimension);
    return std::make_unique<OllamaEmbeddingProvider>(config.url, config.model, config.dimension);
}

std::string VectorStorageService::getBackendKey(const std::string& tenant, const std::string& ns) {
    return tenant + "/" + ns;
}

std::string VectorStorageService::idProblem(std::string_view id) {
    return vostra::fileNameProblem(id);
}

std::string VectorStorageService::databasePath(const std::string& tenant,
                                               const std::string& ns) const {
    return pathFor(getConfig().storage_path, tenant, ns);
}

std::string VectorStorageService::fileOwnerLocked(const std::string& key,
                                                  const std::string& path) const {
    const std::string storage_path = getConfig().storage_path;
    const auto sameFile = [&](const std::string& other) {
        if (other == key) return false;
        const auto [tenant, ns] = splitKey(other);
        return pathFor(storage_path, tenant, ns) == path;
    };
    for (const auto& [other, backend] : backends_)
        if (sameFile(other)) return other;
    for (const auto& [other, record] : namespaces_)
        if (sameFile(other)) return other;
    return {};
}

std::shared_ptr<IVectorBackend> VectorStorageService::createBackend(const std::string& tenant,
                                                                    const std::string& ns) const {
    const VectorStorageConfig config = getConfig();
    std::shared_ptr<IVectorBackend> backend;
    if (config.usesMemoryBackend())
        backend = std::make_shared<MemoryVectorBackend>(config.search_threads);
    else
        backend = std::make_shared<SQLiteVectorBackend>();
    if (!backend->initialize(pathFor(config.storage_path, tenant, ns), tenant, ns,
                             config.embedding.dimension))
        return nullptr;
    return backend;
}

std::shared_ptr<IVectorBackend> VectorStorageService::getOrCreateBackend(const std::string& tenant,
                                                                         const std::string& ns) {
    Status ignored;
    return openBackend(tenant, ns, /*record=*/false, ignored);
}

std::shared_ptr<IVectorBackend> VectorStorageService::openBackend(const std::string& tenant,
                                                                  const std::string& ns, bool record,
                                                                  Status& why) {
    if (!initialized_.load() || !idProblem(tenant).empty() || !idProblem(ns).empty()) {
        why = Status::failure(ErrorKind::NotFound, kNamespaceNotFound);
        return nullptr;
    }
    const std::string key = getBackendKey(tenant, ns);
    std::lock_guard lock(mutex_);
    if (auto it = backends_.find(key); it != backends_.end()) return it->second;
    if (!getConfig().usesMemoryBackend()) {
        // "a_b"/"c" and "a"/"b_c" would share one file, and each other's
        // documents: the namespaces known now, and the owner the file records
        // (which outlives a restart), both keep it to one of them.
        const std::string path = databasePath(tenant, ns);
        std::string owner = fileOwnerLocked(key, path);
        if (owner.empty()) {
            if (auto recorded = SQLiteVectorBackend::readOwner(path);
                recorded && (recorded->first != tenant || recorded->second != ns))
                owner = getBackendKey(recorded->first, recorded->second);
        }
        if (!owner.empty()) {
            why = Status::failure(ErrorKind::Conflict,
                                  "Namespace " + key + " clashes with " + owner +
                                      ": both would use the file " +
                                      fs::path(path).filename().string());
            kLog.error(why.message);
            return nullptr;
        }
    }
    std::shared_ptr<IVectorBackend> backend = createBackend(tenant, ns);
    if (!backend) {
        why = Status::failure(ErrorKind::NotFound, kNamespaceNotFound);
        return nullptr;
    }
    backends_[key] = backend;
    // A namespace made by its first add is recorded like a created one, so
    // the clash check and the listings know it after a restart too.
    if (record && !namespaces_.count(key)) {
        namespaces_.emplace(key, newRecord(tenant, ns, ns, ""));
        if (!saveNamespaceMetaLocked()) kLog.error("Namespace ", key, " is not recorded on disk");
    }
    return backend;
}

VectorNamespace VectorStorageService::newRecord(const std::string& tenant, const std::string& ns,
                                                const std::string& name,
                                                const std::string& description) const {
    VectorNamespace record;
    record.id = getBackendKey(tenant, ns);
    record.namespace_id = ns;
    record.tenant_id = tenant;
    record.name = name.empty() ? ns : name;
    record.description = description;
    record.embedding_dim = getConfig().embedding.dimension;
    record.created_at = record.updated_at = nowMs();
    return record;
}

Status VectorStorageService::tryCreateNamespace(const std::string& tenant, const std::string& ns,
                                                const std::string& name,
                                                const std::string& description) {
    const std::string key = getBackendKey(tenant, ns);
    {
        std::lock_guard lock(mutex_);
        if (namespaces_.count(key)) return Status::success();
    }
    Status why;
    if (!openBackend(tenant, ns, /*record=*/false, why))
        return why.kind == ErrorKind::Conflict
                   ? why
                   : Status::failure(ErrorKind::Invalid, "Failed to create namespace");
    {
        std::lock_guard lock(mutex_);
        // Two requests may race past the first check; the first one wins.
        if (!namespaces_.emplace(key, newRecord(tenant, ns, name, description)).second)
            return Status::success();
        if (!saveNamespaceMetaLocked()) {
            namespaces_.erase(key);
            return Status::failure(ErrorKind::Internal, "Failed to save namespaces");
        }
    }
    kLog.info("Created namespace: ", key);
    return Status::success();
}

bool VectorStorageService::createNamespace(const std::string& tenant, const std::string& ns,
                                           const std::string& name,
                                           const std::string& description) {
    return tryCreateNamespace(tenant, ns, name, description).ok();
}

Status VectorStorageService::tryDeleteNamespace(const std::string& tenant, const std::string& ns) {
    if (!initialized_.load() || !idProblem(tenant).empty() || !idProblem(ns).empty())
        return Status::failure(ErrorKind::NotFound, kNamespaceNotFound);
    const std::string key = getBackendKey(tenant, ns);
    const bool sqlite = !getConfig().usesMemoryBackend();
    const std::string path = databasePath(tenant, ns);

    std::lock_guard lock(mutex_);
    std::optional<VectorNamespace> record;
    if (auto it = namespaces_.find(key); it != namespaces_.end()) {
        record = std::move(it->second);
        namespaces_.erase(it);
        // The table forgets it first: a failed save leaves everything as it was.
        if (!saveNamespaceMetaLocked()) {
            namespaces_.emplace(key, std::move(*record));
            return Status::failure(ErrorKind::Internal, "Failed to save namespaces");
        }
    }
    bool found = backends_.erase(key) > 0 || record.has_value();
    // A file of another namespace with a colliding name is not this one's.
    if (sqlite && fileOwnerLocked(key, path).empty()) {
        const auto owner = SQLiteVectorBackend::readOwner(path);
        if (!owner || (owner->first == tenant && owner->second == ns)) {
            std::error_code ignored;
            found = fs::remove(path, ignored) || found;
            fs::remove(path + "-journal", ignored);
        }
    }
    if (!found) return Status::failure(ErrorKind::NotFound, kNamespaceNotFound);
    kLog.info("Deleted namespace: ", key);
    return Status::success();
}

bool VectorStorageService::deleteNamespace(const std::string& tenant, const std::string& ns) {
    return tryDeleteNamespace(tenant, ns).ok();
}

void VectorStorageService::refreshCounts(std::vector<VectorNamespace>& records) {
    for (VectorNamespace& record : records) {
        std::shared_ptr<IVectorBackend> backend;
        {
            std::lock_guard lock(mutex_);
            auto it = backends_.find(record.id);
            if (it != backends_.end()) backend = it->second;
        }
        // Backends not opened since the start keep their persisted counts.
        if (!backend) continue;
        record.total_chunks = static_cast<int64_t>(backend->count());
        record.document_count = static_cast<int64_t>(backend->listSources().size());
    }
}

std::optional<VectorNamespace> VectorStorageService::getNamespace(const std::string& tenant,
                                                                  const std::string& ns) {
    std::vector<VectorNamespace> records;
    {
        std::lock_guard lock(mutex_);
        auto it = namespaces_.find(getBackendKey(tenant, ns));
        if (it == namespaces_.end()) return std::nullopt;
        records.push_back(it->second);
    }
    refreshCounts(records);
    return records.front();
}

std::vector<VectorNamespace> VectorStorageService::listNamespaces(const std::string& tenant) {
    std::vector<VectorNamespace> records;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [key, record] : namespaces_)
            if (record.tenant_id == tenant) records.push_back(record);
    }
    refreshCounts(records);
    return records;
}

void VectorStorageService::loadNamespaceMeta() {
    const std::string path = getConfig().storage_path + kNamespacesFile;
    const std::optional<std::string> text = readFile(path);
    if (!text) return;
    std::map<std::string, VectorNamespace> loaded;
    try {
        for (const nlohmann::json& item : nlohmann::json::parse(*text)) {
            VectorNamespace record = VectorNamespace::fromJson(item);
            if (!idProblem(record.tenant_id).empty() || !idProblem(record.namespace_id).empty())
                continue;
            record.id = getBackendKey(record.tenant_id, record.namespace_id);
            loaded[record.id] = record;
        }
    } catch (const nlohmann::json::exception& error) {
        kLog.error("Ignoring unreadable ", path, ": ", error.what());
        return;
    }
    std::lock_guard lock(mutex_);
    namespaces_ = std::move(loaded);
}

bool VectorStorageService::saveNamespaceMetaLocked() {
    nlohmann::json table = nlohmann::json::array();
    for (const auto& [key, record] : namespaces_)
        table.push_back(record.toJson());
    return saveStateFile(getConfig().storage_path + kNamespacesFile, dumpJson(table),
                         kPublicFileMode);
}

std::vector<std::string> VectorStorageService::chunkText(const std::string& text) const {
    const VectorStorageConfig config = getConfig();
    if (config.semantic_chunking)
        return semanticChunks(text, config.chunk_size, config.chunk_overlap);
    return fixedLengthChunks(text, config.chunk_size, config.chunk_overlap);
}

VectorAddResponse VectorStorageService::addDocuments(const VectorAddRequest& request) {
    const auto start = Clock::now();
    for (const VectorDocument& document : request.documents)
        if (!allFinite(document.embedding))
            return VectorAddResponse::failure("Invalid embedding: every value must be a finite number");
    Status why;
    std::shared_ptr<IVectorBackend> backend =
        openBackend(request.tenant_id, request.namespace_id, /*record=*/true, why);
    if (!backend)
        return VectorAddResponse::failure(
            why.kind == ErrorKind::Conflict ? why.message : "Failed to get vector backend");

    std::vector<VectorDocument> documents = request.documents;
    const int64_t now = nowMs();
    std::vector<std::size_t> to_embed;
    for (std::size_t i = 0; i < documents.size(); ++i) {
        VectorDocument& document = documents[i];
        if (document.id.empty()) document.id = generateDocumentId();
        if (document.namespace_id.empty()) document.namespace_id = request.namespace_id;
        if (document.created_at == 0) document.created_at = now;
        if (document.updated_at == 0) document.updated_at = now;
        if (request.generate_embeddings && document.embedding.empty()) to_embed.push_back(i);
    }

    VectorAddResponse response;
    if (!to_embed.empty()) {
        std::vector<std::string> texts;
        texts.reserve(to_embed.size());
        for (std::size_t i : to_embed)
            texts.push_back(documents[i].content);
        const auto embed_start = Clock::now();
        std::vector<std::vector<float>> vectors;
        if (std::shared_ptr<IEmbeddingProvider> embedder = provider())
            vectors = embedder->embedBatch(texts);
        embedding_time_ms_.fetch_add(millisecondsSince(embed_start));
        if (vectors.size() != texts.size())
            return VectorAddResponse::failure("Embedding generation failed");
        for (std::size_t k = 0; k < to_embed.size(); ++k) {
            // The provider answers zeros when its service failed; the chunk
            // is kept (text search still finds it) and the caller told.
            if (allZero(vectors[k])) ++response.zero_vector_chunks;
            documents[to_embed[k]].embedding = std::move(vectors[k]);
        }
        response.embeddings_generated = static_cast<int64_t>(to_embed.size());
    }

    if (!backend->add(documents))
        return VectorAddResponse::failure("Failed to add documents to backend");
    documents_added_.fetch_add(static_cast<int64_t>(documents.size()));

    response.success = true;
    response.documents_added = static_cast<int64_t>(documents.size());
    for (const VectorDocument& document : documents)
        response.document_ids.push_back(document.id);
    response.time_ms = millisecondsSince(start);
    return response;
}

VectorAddResponse VectorStorageService::addText(
    const std::string& tenant, const std::string& ns, const std::string& text,
    const std::string& source, const std::map<std::string, std::string>& metadata) {
    const std::vector<std::string> chunks = chunkText(text);
    if (chunks.empty()) {
        VectorAddResponse nothing;
        nothing.success = true;
        return nothing;
    }
    VectorAddRequest request;
    request.tenant_id = tenant;
    request.namespace_id = ns;
    request.generate_embeddings = true;
    request.documents.reserve(chunks.size());
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        VectorDocument document;
        document.id = generateDocumentId();
        document.content = chunks[i];
        document.source = source;
        document.namespace_id = ns;
        document.metadata = metadata;
        document.chunk_index = static_cast<int32_t>(i);
        document.total_chunks = static_cast<int32_t>(chunks.size());
        request.documents.push_back(std::move(document));
    }
    return addDocuments(request);
}

// A clash is the request's fault; anything else, as ever, "not found".
VectorSearchResponse VectorStorageService::backendFailure(const Status& why) {
    return VectorSearchResponse::failure(
        why.kind == ErrorKind::Conflict ? ErrorKind::Invalid : ErrorKind::Internal, why.message);
}

VectorSearchResponse VectorStorageService::search(const VectorSearchRequest& request) {
    const auto start = Clock::now();
    if (!allFinite(request.query_embedding))
        return VectorSearchResponse::failure(
            ErrorKind::Invalid, "Invalid query embedding: every value must be a finite number");
    Status why;
    std::shared_ptr<IVectorBackend> backend =
        openBackend(request.tenant_id, request.namespace_id, /*record=*/false, why);
    if (!backend) return backendFailure(why);
    if (!getConfig().usesMemoryBackend())
        for (const auto& [key, value] : request.filter)
            if (!SQLiteVectorBackend::isUsableMetadataKey(key))
                return VectorSearchResponse::failure(ErrorKind::Invalid, "Invalid filter key: " + key);

    std::vector<float> query = request.query_embedding;
    if (query.empty() && !request.query.empty()) {
        if (std::shared_ptr<IEmbeddingProvider> embedder = provider()) {
            const auto embed_start = Clock::now();
            query = embedder->embed(request.query);
            embedding_time_ms_.fetch_add(millisecondsSince(embed_start));
        }
    }
    if (query.empty()) return VectorSearchResponse::failure(ErrorKind::Unavailable, "No query embedding provided");

    VectorSearchResponse response;
    response.total_searched = static_cast<int64_t>(backend->count());
    const auto search_start = Clock::now();
    response.results = backend->search(query, request.top_k, request.min_score, request.filter);
    search_time_ms_.fetch_add(millisecondsSince(search_start));
    for (VectorSearchResult& result : response.results) {
        if (!request.include_content) result.document.content.clear();
        if (!request.include_embedding) result.document.embedding.clear();
    }
    searches_.fetch_add(1);
    response.success = true;
    response.search_time_ms = millisecondsSince(start);
    return response;
}

VectorSearchResponse VectorStorageService::textSearch(const std::string& tenant,
                                                      const std::string& ns,
                                                      const std::string& query, int32_t limit,
                                                      const std::string& field) {
    const auto start = Clock::now();
    Status why;
    std::shared_ptr<IVectorBackend> backend = openBackend(tenant, ns, /*record=*/false, why);
    if (!backend) return backendFailure(why);
    if (!field.empty() && !getConfig().usesMemoryBackend() &&
        !SQLiteVectorBackend::isUsableMetadataKey(field))
        return VectorSearchResponse::failure(ErrorKind::Invalid, "Invalid field: " + field);
    VectorSearchResponse response;
    response.total_searched = static_cast<int64_t>(backend->count());
    response.results = backend->textSearch(query, limit, field);
    response.success = true;
    response.search_time_ms = millisecondsSince(start);
    return response;
}

std::optional<VectorDocument> VectorStorageService::getDocument(const std::string& tenant,
                                                                const std::string& ns,
                                                                const std::string& id) {
    std::shared_ptr<IVectorBackend> backend = getOrCreateBackend(tenant, ns);
    if (!backend) return std::nullopt;
    return backend->get(id);
}

int64_t VectorStorageService::deleteDocuments(const std::string& tenant, const std::string& ns,
                                              const std::vector<std::string>& ids) {
    std::shared_ptr<IVectorBackend> backend = getOrCreateBackend(tenant, ns);
    if (!backend) return 0;
    std::vector<std::string> stored;
    for (const std::string& id : ids)
        if (backend->get(id)) stored.push_back(id);
    if (stored.empty() || !backend->remove(stored)) return 0;
    return static_cast<int64_t>(stored.size());
}

int64_t VectorStorageService::deleteBySource(const std::string& tenant, const std::string& ns,
                                             const std::string& source) {
    std::shared_ptr<IVectorBackend> backend = getOrCreateBackend(tenant, ns);
    return backend ? static_cast<int64_t>(backend->removeBySource(source)) : 0;
}

std::vector<std::string> VectorStorageService::listSources(const std::string& tenant,
                                                           const std::string& ns) {
    std::shared_ptr<IVectorBackend> backend = getOrCreateBackend(tenant, ns);
    return backend ? backend->listSources() : std::vector<std::string>{};
}

std::vector<float> VectorStorageService::generateEmbedding(const std::string& text) {
    std::shared_ptr<IEmbeddingProvider> embedder = provider();
    return embedder ? embedder->embed(text) : std::vector<float>{};
}

std::optional<std::vector<std::vector<float>>> VectorStorageService::generateEmbeddings(
    const std::vector<std::string>& texts) {
    std::shared_ptr<IEmbeddingProvider> embedder = provider();
    if (!embedder) return std::nullopt;
    const auto start = Clock::now();
    auto vectors = embedder->embedBatch(texts);
    embedding_time_ms_.fetch_add(millisecondsSince(start));
    return vectors;
}

nlohmann::json VectorStorageService::getMetrics() const {
    const VectorStorageConfig config = getConfig();
    const std::shared_ptr<IEmbeddingProvider> embedder = provider();
    std::size_t namespace_count = 0;
    {
        std::lock_guard lock(mutex_);
        namespace_count = namespaces_.size();
    }
    return {
        {"backend", config.backendName()},
        {"embedding_provider", embedder ? embedder->getName() : "none"},
        {"embedding_dimension", embedder ? embedder->getDimension() : config.embedding.dimension},
        {"namespace_count", namespace_count},
        {"total_documents_added", documents_added_.load()},
        {"total_searches", searches_.load()},
        {"total_embedding_time_ms", embedding_time_ms_.load()},
        {"total_search_time_ms", search_time_ms_.load()}};
}

nlohmann::json VectorStorageService::getHealth() const {
    const VectorStorageConfig config = getConfig();
    const std::shared_ptr<IEmbeddingProvider> embedder = provider();
    return {{"status", initialized_.load() ? "healthy" : "stopped"},
            {"enabled", config.enabled},
            {"backend", config.backendName()},
            {"embedding_available", embedder && embedder->isAvailable()},
            {"embedding_provider", embedder ? embedder->getName() : "none"}};
}

}  // namespace vostra::data
