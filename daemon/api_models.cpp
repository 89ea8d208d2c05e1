// The model files API under "/api/v1/models": the registry of model files
// found in the model folders (GGUF headers, safetensors tables, PyTorch
// files), one model's metadata and tensors, and a rescan on demand. The
// registry itself is refreshed by the daemon's model-scan loop.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/route_table.h"
#include "models/model_registry.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr const char* kModelNotFound = "Model not found";
constexpr const char* kEndpointNotFound = "Models endpoint not found";
constexpr const char* kRegistryFile = "models_registry.json";
// Where model files usually sit on a worker, beside the configured ones.
constexpr const char* kDefaultModelFolders[] = {"/var/lib/vostra/storage/models",
                                                "/data/vostra/models"};

struct ModelsCall {
    ModelRegistry& registry;
    std::string_view path;  // as received, with the query the list reads
};

void listModels(ModelsCall& call, const HttpRequest& request, const RouteParams&) {
    json models = json::array();
    for (const ModelRecord& record : call.registry.list(queryParameter(call.path, "format"),
                                                       queryParameter(call.path, "architecture")))
        models.push_back(record.toJson(false));
    const std::size_t count = models.size();
    sendJson(request.fd, 200,
             {{"models", std::move(models)},
              {"count", count},
              {"folders", call.registry.folders()},
              {"last_scan", call.registry.lastScan()}});
}

void getModel(ModelsCall& call, const HttpRequest& request, const RouteParams& params) {
    const auto record = call.registry.get(params.get("id"));
    if (!record) return sendError(request.fd, 404, kModelNotFound);
    sendJson(request.fd, 200, record->toJson(false));
}

void getTensors(ModelsCall& call, const HttpRequest& request, const RouteParams& params) {
    const auto record = call.registry.get(params.get("id"));
    if (!record) return sendError(request.fd, 404, kModelNotFound);
    sendJson(request.fd, 200,
             {{"id", record->id}, {"count", record->tensors.size()}, {"tensors", record->tensors}});
}

void rescan(ModelsCall& call, const HttpRequest& request, const RouteParams&) {
    json summary = call.registry.scanModelFiles().toJson();
    summary["status"] = "scanned";
    sendJson(request.fd, 200, summary);
}

constexpr ServiceRoute<ModelsCall> kModelRoutes[] = {
    {"GET", "/api/v1/models", listModels},
    {"POST", "/api/v1/models/scan", rescan},
    {"GET", "/api/v1/models/scan", nullptr},
    {"GET", "/api/v1/models/{id}", getModel},
    {"GET", "/api/v1/models/{id}/tensors", getTensors},
};

// For the API description.
[[maybe_unused]] const bool kListed0 = listRoutes("models", kModelRoutes);

}  // namespace

void DataDaemon::startModels() {
    std::vector<std::string> folders(std::begin(kDefaultModelFolders),
                                     std::end(kDefaultModelFolders));
    folders.insert(folders.end(), config_.model_dirs.begin(), config_.model_dirs.end());
    if (config_.storage_enabled) folders.push_back(config_.storage_path + "/models");
    std::string file = config_.models_registry_file;
    if (file.empty() && !config_.data_dir.empty())
        file = (std::filesystem::path(config_.data_dir) / kRegistryFile).string();
    else if (file.empty() && config_.storage_enabled)
        file = config_.storage_path + "/system/" + kRegistryFile;
    models_ = std::make_unique<ModelRegistry>(std::move(folders), std::move(file));
    models_->load();
}

void DataDaemon::scanModelFiles() {
    if (models_) models_->scanModelFiles();
}

void DataDaemon::handleModelsApi(const HttpRequest& request) {
    // Rows are matched without the query string, which the list reads.
    const HttpRequest routed = withoutQuery(request);
    ModelsCall call{*models_, request.path};
    serveRoutes(call, kModelRoutes, routed, kEndpointNotFound);
}

}  // namespace vostra::data
