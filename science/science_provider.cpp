#include "science/science_provider.h"

#include <algorithm>
#include <array>
#include <utility>

#include "common/json_fields.h"

namespace vostra::data {
namespace {

using nlohmann::json;

constexpr std::array<std::pair<ScienceCategory, std::string_view>, 17> kCategoryNames = {{
    {ScienceCategory::Space, "space"},
    {ScienceCategory::Physics, "physics"},
    {ScienceCategory::Earth, "earth"},
    {ScienceCategory::Biology, "biology"},
    {ScienceCategory::Medicine, "medicine"},
    {ScienceCategory::Chemistry, "chemistry"},
    {ScienceCategory::Materials, "materials"},
    {ScienceCategory::Literature, "literature"},
    {ScienceCategory::Food, "food"},
    {ScienceCategory::Agriculture, "agriculture"},
    {ScienceCategory::Economics, "economics"},
    {ScienceCategory::SocialScience, "social_science"},
    {ScienceCategory::Engineering, "engineering"},
    {ScienceCategory::Mathematics, "mathematics"},
    {ScienceCategory::Robotics, "robotics"},
    {ScienceCategory::MachineLearning, "machine_learning"},
    {ScienceCategory::General, "general"},
}};

constexpr std::array<std::pair<AuthType, std::string_view>, 4> kAuthNames = {{
    {AuthType::None, "none"},
    {AuthType::ApiKey, "api_key"},
    {AuthType::Bearer, "bearer"},
    {AuthType::Basic, "basic"},
}};

template <typename Enum, std::size_t N>
std::string_view nameOf(const std::array<std::pair<Enum, std::string_view>, N>& names, Enum value) {
    for (const auto& [known, name] : names)
        if (known == value) return name;
    return names.back().second;
}

template <typename Enum, std::size_t N>
Enum valueOf(const std::array<std::pair<Enum, std::string_view>, N>& names, std::string_view name,
             Enum fallback) {
    for (const auto& [value, known] : names)
        if (known == name) return value;
    return fallback;
}

json mappingToJson(const ResponseMapping& mapping) {
    return {{"results_path", mapping.results_path},
            {"title_field", mapping.title_field},
            {"description_field", mapping.description_field},
            {"url_field", mapping.url_field},
            {"id_field", mapping.id_field}};
}

ResponseMapping mappingFromJson(const json& j) {
    ResponseMapping mapping;
    readField(j, "results_path", mapping.results_path);
    readField(j, "title_field", mapping.title_field);
    readField(j, "description_field", mapping.description_field);
    readField(j, "url_field", mapping.url_field);
    readField(j, "id_field", mapping.id_field);
    return mapping;
}

json queryToJson(const QueryTemplate& query) {
    return {{"name", query.name},
            {"endpoint", query.endpoint},
            {"method", query.method},
            {"params", query.params},
            {"body_template", query.body_template},
            {"headers", query.headers},
            {"response", mappingToJson(query.response)},
            {"max_results", query.max_results}};
}

QueryTemplate queryFromJson(const json& j) {
    QueryTemplate query;
    readField(j, "name", query.name);
    readField(j, "endpoint", query.endpoint);
    readField(j, "method", query.method);
    readField(j, "params", query.params);
    readField(j, "body_template", query.body_template);
    readField(j, "headers", query.headers);
    if (auto it = j.find("response"); it != j.end()) query.response = mappingFromJson(*it);
    readField(j, "max_results", query.max_results);
    return query;
}

}  // namespace

std::string_view categoryName(ScienceCategory category) {
    return nameOf(kCategoryNames, category);
}

ScienceCategory categoryFromName(std::string_view name) {
    return valueOf(kCategoryNames, name, ScienceCategory::General);
}

std::string_view authTypeName(AuthType type) {
    return nameOf(kAuthNames, type);
}

AuthType authTypeFromName(std::string_view name) {
    return valueOf(kAuthNames, name, AuthType::None);
}

const QueryTemplate* ScienceProvider::findQuery(std::string_view name) const {
    auto it = std::ranges::find(queries, name, &QueryTemplate::name);
    return it == queries.end() ? nullptr : &*it;
}

json providerToJson(const ScienceProvider& provider) {
    json queries = json::array();
    for (const QueryTemplate& query : provider.queries)
        queries.push_back(queryToJson(query));
    return {{"id", provider.id},
            {"name", provider.name},
            {"description", provider.description},
            {"base_url", provider.base_url},
            {"category", categoryName(provider.category)},
            {"enabled", provider.enabled},
            {"rate_limit_rpm", provider.rate_limit_rpm},
            {"auth",
             {{"type", authTypeName(provider.auth.type)},
              {"param_name", provider.auth.param_name},
              {"header_name", provider.auth.header_name},
              {"env_var", provider.auth.env_var}}},
            {"queries", queries}};
}

ScienceProvider providerFromJson(const json& j, ScienceProvider base) {
    ScienceProvider& p = base;
    readField(j, "id", p.id);
    readField(j, "name", p.name);
    readField(j, "description", p.description);
    readField(j, "base_url", p.base_url);
    if (auto it = j.find("category"); it != j.end())
        p.category = categoryFromName(it->get<std::string>());
    readField(j, "enabled", p.enabled);
    readField(j, "rate_limit_rpm", p.rate_limit_rpm);
    if (auto it = j.find("auth"); it != j.end()) {
        if (auto type = it->find("type"); type != it->end())
            p.auth.type = authTypeFromName(type->get<std::string>());
        readField(*it, "param_name", p.auth.param_name);
        readField(*it, "header_name", p.auth.header_name);
        readField(*it, "env_var", p.auth.env_var);
    }
    if (auto it = j.find("queries"); it != j.end()) {
        p.queries.clear();
        for (const json& query : it->get<std::vector<json>>())
            p.queries.push_back(queryFromJson(query));
    }
    return base;
}

}  // namespace vostra::data
