#include "storage/storage_service.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "common/atomic_file.h"
#include "common/file_name.h"
#include "common/log.h"
#include "common/random_id.h"
#include "storage/content_type.h"
#include "storage/filesystem_backend.h"
#include "storage/memory_backend.h"
#include "storage/path_rules.h"
#include "storage/s3_backend.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[StorageService] ");
constexpr const char* kTenantsFile = "/system/tenants.json";
constexpr std::string_view kTenantNotFound = "Tenant not found: ";
constexpr const char* kJsonType = "application/json";
constexpr int kSubscriptionIdDigits = 16;

TenantConfig builtInDefaultTenant() {
    TenantConfig tenant = TenantConfig::usableDefaults();
    tenant.id = "default";
    tenant.name = "Default Tenant";
    return tenant;
}

std::string swarmPath(const std::string& swarm_id, const std::string& rest) {
    return "swarms/" + swarm_id + "/" + rest;
}

}  // namespace

StorageService::StorageService() = default;
StorageService::~StorageService() = default;

bool StorageService::initialize(const StorageServiceConfig& config) {
    if (initialized_) return true;
    config_ = config;
    switch (config_.backend_type) {
        case StorageBackendType::Filesystem:
            backend_ = std::make_unique<FilesystemBackend>();
            break;
        case StorageBackendType::Memory:
            backend_ = std::make_unique<MemoryBackend>();
            break;
        case StorageBackendType::S3:
            backend_ = std::make_unique<S3Backend>();
            break;
        default:
            break;  // an unknown selector keeps whatever backend is there
    }
    if (!backend_ || !backend_->initialize(config_)) {
        backend_.reset();
        return false;
    }

    // Not persisted here: saving before loading would overwrite the stored
    // table with the default tenant alone.
    const TenantConfig& configured = config_.default_tenant;
    const TenantConfig tenant = configured.id.empty() ? builtInDefaultTenant() : configured;
    if (insertTenant(tenant).ok())
        backend_->createTenantDirectory(tenant.id);
    else
        kLog.error("Cannot create default tenant: ", tenant.id);
    loadTenantsFromDisk();

    initialized_ = true;
    kLog.info("Initialized");
    return true;
}

void StorageService::shutdown() {
    if (backend_) backend_->shutdown();
}

std::string StorageService::tenantIdProblem(std::string_view id) {
    const std::string problem = vostra::fileNameProblem(id);
    if (problem.empty()) return {};
    return "Invalid tenant id (" + problem + "): " + std::string(id);
}

bool StorageService::validateTenantAccess(const std::string& tenant) const {
    // The id names a directory: one that could leave the tenants folder is
    // never served, whatever the table holds.
    if (!tenantIdProblem(tenant).empty()) return false;
    std::lock_guard lock(tenants_mutex_);
    auto it = tenants_.find(tenant);
    return it != tenants_.end() && it->second.enabled && it->second.api_access;
}

std::optional<StorageResult> StorageService::refuseAccess(
    const std::string& tenant, std::initializer_list<std::string_view> paths) const {
    if (!validateTenantAccess(tenant))
        return StorageResult::failure(ErrorKind::NotFound, "Tenant not found or access denied: " + tenant);
    if (!backend_) return StorageResult::failure(ErrorKind::Unavailable, "Storage service not available");
    for (std::string_view path : paths) {
        if (isReservedPath(path))
            return StorageResult::failure(ErrorKind::Invalid,
                                          "Reserved file name: " + std::string(path));
    }
    return std::nullopt;
}

bool StorageService::isReservedPath(std::string_view path) {
    const std::string sanitized = sanitizePath(std::string(path));
    const std::string_view name = std::string_view(sanitized).substr(sanitized.rfind('/') + 1);
    // A client that could write "a.txt.meta" would forge the content type
    // and checksum that the backend keeps for "a.txt".
    return name.ends_with(FilesystemBackend::kSidecarSuffix) || PendingFile::isPendingName(name);
}

TenantUsage StorageService::getTenantUsage(const std::string& tenant) const {
    TenantUsage usage;
    // An unusable id answers all zero: ".." would walk the whole storage
    // root and report every tenant's use.
    (void)tryGetTenantUsage(tenant, usage);
    return usage;
}

Status StorageService::tryGetTenantUsage(const std::string& tenant, TenantUsage& usage) const {
    usage = TenantUsage{};
    usage.tenant_id = tenant;
    if (std::string problem = tenantIdProblem(tenant); !problem.empty())
        return Status::failure(ErrorKind::Invalid, std::move(problem));
    if (backend_) usage = backend_->getTenantUsage(tenant);
    usage.tenant_id = tenant;
    std::lock_guard lock(tenants_mutex_);
    auto it = tenants_.find(tenant);
    usage.storage_quota_bytes = it == tenants_.end() ? 0 : it->second.storage_quota_bytes;
    return Status::success();
}

bool StorageService::checkQuota(const std::string& tenant, int64_t additional_bytes) const {
    if (!backend_) return additional_bytes <= 0;
    const TenantUsage usage = getTenantUsage(tenant);
    int64_t total = 0;
    // An overflowing sum is over any quota.
    if (__builtin_add_overflow(additional_bytes, usage.storage_used_bytes, &total)) return false;
    return total <= usage.storage_quota_bytes;
}

std::optional<StorageResult> StorageService::refuseQuota(const std::string& tenant,
                                                         int64_t additional_bytes) const {
    if (checkQuota(tenant, additional_bytes)) return std::nullopt;
    return StorageResult::failure(ErrorKind::QuotaExceeded, "Storage quota exceeded for tenant: " + tenant);
}

std::string StorageService::getAbsolutePath(const std::string& tenant,
                                            const std::string& path) const {
    return backend_ ? backend_->getAbsolutePath(tenant, path) : std::string();
}

StorageResult StorageService::read(const StorageReadRequest& request) {
    if (auto refused = refuseAccess(request.tenant_id, {request.path})) return *refused;
    StorageResult result =
        backend_->read(request.tenant_id, request.path, request.offset, request.length);
    if (result.success) {
        total_reads_.fetch_add(1);
        bytes_read_.fetch_add(result.bytes_read);
    }
    return result;
}

StorageResult StorageService::openFile(const StorageReadRequest& request, OpenedFile& file) {
    if (auto refused = refuseAccess(request.tenant_id, {request.path})) return *refused;
    StorageResult result = backend_->openFile(request.tenant_id, request.path, file);
    if (result.success) {
        total_reads_.fetch_add(1);
        bytes_read_.fetch_add(result.bytes_read);
    }
    return result;
}

StorageResult StorageService::write(const StorageWriteRequest& request) {
    if (auto refused = refuseAccess(request.tenant_id, {request.path})) return *refused;
    if (!isValidContentType(request.content_type)) {
        return StorageResult::failure(ErrorKind::Invalid,
                                      "Invalid content type: " + request.content_type);
    }
    if (auto refused = refuseQuota(request.tenant_id, static_cast<int64_t>(request.data.size())))
        return *refused;
    StorageResult result = backend_->write(request.tenant_id, request.path, request.data,
                                           request.content_type, request.metadata);
    if (result.success) {
        total_writes_.fetch_add(1);
        bytes_written_.fetch_add(result.bytes_written);
        notifySubscribers(request.tenant_id, sanitizePath(request.path), "write");
    }
    return result;
}

StorageResult StorageService::list(const StorageListRequest& request) {
    if (auto refused = refuseAccess(request.tenant_id, {request.path})) return *refused;
    return backend_->list(request.tenant_id, request.path, request.recursive, request.pattern,
                          request.limit, request.offset);
}

StorageResult StorageService::stat(const std::string& tenant, const std::string& path) {
    if (auto refused = refuseAccess(tenant, {path})) return *refused;
    return backend_->stat(tenant, path);
}

StorageResult StorageService::remove(const std::string& tenant, const std::string& path,
                                     bool recursive) {
    if (auto refused = refuseAccess(tenant, {path})) return *refused;
    StorageResult result = backend_->remove(tenant, path, recursive);
    if (result.success) {
        total_deletes_.fetch_add(1);
        notifySubscribers(tenant, sanitizePath(path), "delete");
    }
    return result;
}

StorageResult StorageService::mkdir(const std::string& tenant, const std::string& path) {
    if (auto refused = refuseAccess(tenant, {path})) return *refused;
    StorageResult result = backend_->mkdir(tenant, path);
    if (result.success) notifySubscribers(tenant, sanitizePath(path), "mkdir");
    return result;
}

StorageResult StorageService::move(const std::string& tenant, const std::string& from,
                                   const std::string& to) {
    if (auto refused = refuseAccess(tenant, {from, to})) return *refused;
    StorageResult result = backend_->move(tenant, from, to);
    if (result.success) notifySubscribers(tenant, sanitizePath(to), "move");
    return result;
}

StorageResult StorageService::copy(const std::string& tenant, const std::string& from,
                                   const std::string& to) {
    if (auto refused = refuseAccess(tenant, {from, to})) return *refused;
    // A source that cannot be found adds nothing; the copy itself reports it.
    const StorageResult source = backend_->stat(tenant, from);
    if (source.kind == ErrorKind::Refused) return source;
    int64_t added = source.entry ? source.entry->size_bytes : 0;
    // A directory's own size says nothing of what a copy adds; without this
    // repeated directory copies would grow a tenant past any quota.
    if (source.entry && source.entry->is_directory) {
        const StorageResult tree = backend_->list(tenant, from, true, "", INT32_MAX, 0);
        for (const FileEntry& entry : tree.entries)
            added += entry.size_bytes;
    }
    if (auto refused = refuseQuota(tenant, added)) return *refused;
    StorageResult result = backend_->copy(tenant, from, to);
    if (result.success) notifySubscribers(tenant, sanitizePath(to), "copy");
    return result;
}

std::string StorageService::subscribe(const std::string& tenant, const std::string& path_prefix,
                                      ChangeCallback callback) {
    std::lock_guard lock(subscriptions_mutex_);
    std::string id;
    do {
        id = "sub-" + vostra::randomHex(kSubscriptionIdDigits);
    } while (subscriptions_.contains(id));
    subscriptions_.emplace(id, Subscription{tenant, path_prefix, std::move(callback)});
    return id;
}

void StorageService::unsubscribe(const std::string& id) {
    std::lock_guard lock(subscriptions_mutex_);
    subscriptions_.erase(id);
}

void StorageService::notifySubscribers(const std::string& tenant, const std::string& path,
                                       const std::string& operation) {
    std::lock_guard lock(subscriptions_mutex_);
    for (const auto& [id, subscription] : subscriptions_) {
        if (subscription.tenant != tenant) continue;
        const std::string& prefix = subscription.prefix;
        // A plain text prefix on purpose: "docs" also sees "docs2/b".
        if (!prefix.empty() && prefix != "/" && !path.starts_with(prefix)) continue;
        try {
            subscription.callback(tenant, path, operation);
        } catch (...) {
            // One failing subscriber must not cost the others their event.
        }
    }
}

StorageService::Figures StorageService::figures() const {
    Figures figures;
    figures.total_writes = total_writes_.load();
    figures.total_reads = total_reads_.load();
    figures.total_deletes = total_deletes_.load();
    figures.bytes_written = bytes_written_.load();
    figures.bytes_read = bytes_read_.load();
    {
        std::lock_guard lock(tenants_mutex_);
        figures.tenant_count = tenants_.size();
    }
    std::lock_guard lock(subscriptions_mutex_);
    figures.subscription_count = subscriptions_.size();
    return figures;
}

nlohmann::json StorageService::getMetrics() const {
    const Figures f = figures();
    return {{"total_writes", f.total_writes},
            {"total_reads", f.total_reads},
            {"total_deletes", f.total_deletes},
            {"bytes_written", f.bytes_written},
            {"bytes_read", f.bytes_read},
            {"backend", storageBackendName(config_.backend_type)},
            {"tenant_count", f.tenant_count},
            {"subscription_count", f.subscription_count}};
}

Status StorageService::insertTenant(const TenantConfig& tenant) {
    if (std::string problem = tenantIdProblem(tenant.id); !problem.empty())
        return Status::failure(ErrorKind::Invalid, std::move(problem));
    std::lock_guard lock(tenants_mutex_);
    if (!tenants_.emplace(tenant.id, tenant).second)
        return Status::failure(ErrorKind::Conflict, "Tenant already exists: " + tenant.id);
    return Status::success();
}

// Each change holds persist_mutex_ from the change to the save, so that a
// failed save can be undone without undoing anybody else's change.
Status StorageService::tryCreateTenant(const TenantConfig& tenant) {
    std::lock_guard persist(persist_mutex_);
    if (Status inserted = insertTenant(tenant); !inserted) return inserted;
    if (Status saved = saveTenantsLocked(); !saved) {
        std::lock_guard lock(tenants_mutex_);
        tenants_.erase(tenant.id);
        return saved;
    }
    if (backend_ && !backend_->createTenantDirectory(tenant.id))
        kLog.error("Cannot create the directory of tenant: ", tenant.id);
    kLog.info("Created tenant: ", tenant.id);
    return Status::success();
}

Status StorageService::tryUpdateTenant(const TenantConfig& tenant) {
    std::lock_guard persist(persist_mutex_);
    TenantConfig before;
    {
        std::lock_guard lock(tenants_mutex_);
        auto it = tenants_.find(tenant.id);
        if (it == tenants_.end())
            return Status::failure(ErrorKind::NotFound, std::string(kTenantNotFound) + tenant.id);
        before = std::exchange(it->second, tenant);
    }
    if (Status saved = saveTenantsLocked(); !saved) {
        std::lock_guard lock(tenants_mutex_);
        tenants_[tenant.id] = std::move(before);
        return saved;
    }
    return Status::success();
}

Status StorageService::tryDeleteTenant(const std::string& id, bool force) {
    std::lock_guard persist(persist_mutex_);
    TenantConfig removed;
    {
        std::lock_guard lock(tenants_mutex_);
        auto it = tenants_.find(id);
        if (it == tenants_.end())
            return Status::failure(ErrorKind::NotFound, std::string(kTenantNotFound) + id);
        removed = std::move(it->second);
        tenants_.erase(it);
    }
    if (Status saved = saveTenantsLocked(); !saved) {
        std::lock_guard lock(tenants_mutex_);
        tenants_.emplace(id, std::move(removed));
        return saved;
    }
    // Files go only once the tenant is gone for good.
    if (force && backend_) backend_->deleteTenantDirectory(id);
    kLog.info("Deleted tenant: ", id);
    return Status::success();
}

bool StorageService::createTenant(const TenantConfig& tenant) { return tryCreateTenant(tenant).ok(); }
bool StorageService::updateTenant(const TenantConfig& tenant) { return tryUpdateTenant(tenant).ok(); }
bool StorageService::deleteTenant(const std::string& id, bool force) {
    return tryDeleteTenant(id, force).ok();
}

std::optional<TenantConfig> StorageService::getTenant(const std::string& id) const {
    std::lock_guard lock(tenants_mutex_);
    auto it = tenants_.find(id);
    if (it == tenants_.end()) return std::nullopt;
    return it->second;
}

std::vector<TenantConfig> StorageService::listTenants() const {
    std::lock_guard lock(tenants_mutex_);
    std::vector<TenantConfig> all;
    all.reserve(tenants_.size());
    for (const auto& [id, tenant] : tenants_)
        all.push_back(tenant);
    return all;
}

std::string StorageService::tenantsFile() const {
    // The memory backend forgets its tenants with its files; the others
    // keep the table under the local base path (with S3, each daemon on a
    // bucket keeps its own).
    if (config_.backend_type == StorageBackendType::Memory || !backend_) return {};
    return config_.base_path + kTenantsFile;
}

void StorageService::saveTenantsToMetadata() {
    std::lock_guard persist(persist_mutex_);
    if (Status saved = saveTenantsLocked(); !saved) kLog.error(saved.message);
}

Status StorageService::saveTenantsLocked() {
    const std::string file = tenantsFile();
    if (file.empty()) return Status::success();
    nlohmann::json table = nlohmann::json::array();
    for (const TenantConfig& tenant : listTenants()) {
        nlohmann::json object = tenant.toJson();
        // Read back, the rounded-down GiB figure would win over the exact
        // byte quota: a 1000-byte quota would come back as 0.
        object.erase("storage_quota_gb");
        table.push_back(std::move(object));
    }
    // Without api_keys, so the table may be readable by all.
    const std::string text =
        table.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
    // The filesystem backend made the folder; with S3 the first save does.
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    if (Status saved = vostra::writeFileAtomically(file, text, 0644); !saved)
        return Status::failure(ErrorKind::Internal, "Failed to save tenants: " + saved.message);
    return Status::success();
}

void StorageService::loadTenantsFromDisk() {
    const std::string file = tenantsFile();
    if (file.empty()) return;
    std::ifstream in(file, std::ios::binary);
    if (!in) return;  // nothing saved yet
    std::stringstream text;
    text << in.rdbuf();
    const nlohmann::json table = nlohmann::json::parse(text.str(), nullptr, false);
    if (!table.is_array()) {
        kLog.error("Error loading tenants: ", file, " is not a JSON array of tenants");
        return;
    }
    for (const nlohmann::json& item : table) {
        try {
            const TenantConfig tenant = TenantConfig::fromJson(item);
            if (const std::string problem = tenantIdProblem(tenant.id); !problem.empty()) {
                kLog.error("Error loading tenants: ", problem);
                continue;
            }
            // The tenant already in the table (the configured default) wins.
            if (insertTenant(tenant).ok() && backend_) backend_->createTenantDirectory(tenant.id);
        } catch (const nlohmann::json::exception& error) {
            kLog.error("Error loading tenants: ", error.what());
        }
    }
}

StorageResult StorageService::storeJson(const std::string& tenant, const std::string& path,
                                        const nlohmann::json& document) {
    StorageWriteRequest request;
    request.tenant_id = tenant;
    request.path = path;
    request.data = document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
    request.content_type = kJsonType;
    return write(request);
}

StorageResult StorageService::storeSwarmGoal(const std::string& tenant, const std::string& swarm_id,
                                             const nlohmann::json& goal) {
    return storeJson(tenant, swarmPath(swarm_id, "goal.json"), goal);
}

StorageResult StorageService::storeSwarmPlan(const std::string& tenant, const std::string& swarm_id,
                                             const nlohmann::json& plan) {
    return storeJson(tenant, swarmPath(swarm_id, "plan.json"), plan);
}

StorageResult StorageService::storeSwarmResult(const std::string& tenant,
                                               const std::string& swarm_id,
                                               const nlohmann::json& result) {
    return storeJson(tenant, swarmPath(swarm_id, "result.json"), result);
}

StorageResult StorageService::getSwarmResult(const std::string& tenant,
                                             const std::string& swarm_id) {
    StorageReadRequest request;
    request.tenant_id = tenant;
    request.path = swarmPath(swarm_id, "result.json");
    return read(request);
}

StorageResult StorageService::storeTaskOutput(const std::string& tenant,
                                              const std::string& swarm_id,
                                              const std::string& task_id,
                                              const nlohmann::json& output) {
    return storeJson(tenant, swarmPath(swarm_id, "tasks/" + task_id + ".json"), output);
}

StorageResult StorageService::storeArtifact(const std::string& tenant, const std::string& swarm_id,
                                            const std::string& name, const std::string& data,
                                            const std::string& content_type) {
    StorageWriteRequest request;
    request.tenant_id = tenant;
    request.path = swarmPath(swarm_id, "artifacts/" + name);
    request.data = data;
    request.content_type = content_type;
    return write(request);
}

StorageResult StorageService::listSwarms(const std::string& tenant) {
    StorageListRequest request;
    request.tenant_id = tenant;
    request.path = "swarms";
    return list(request);
}

StorageResult StorageService::deleteSwarm(const std::string& tenant, const std::string& swarm_id) {
    return remove(tenant, "swarms/" + swarm_id, true);
}

}  // namespace vostra::data
