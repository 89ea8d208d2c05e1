#include "daemon/access_policy.h"

#include <nlohmann/json.hpp>
#include <vector>

#include "daemon/request_context.h"
#include "daemon/route_table.h"

namespace vostra::data {
namespace {

// The areas a tenant key may use, all of them scoped to the request's
// tenant by their handlers.
constexpr std::string_view kTenantAreas[] = {"swarms",    "workspaces", "outputs", "skills",
                                             "automations", "sandboxes", "cicd",    "triage"};

std::vector<std::string_view> segmentsOf(std::string_view path) {
    std::vector<std::string_view> segments;
    std::size_t begin = 0;
    while (begin <= path.size()) {
        std::size_t end = path.find('/', begin);
        if (end == std::string_view::npos) end = path.size();
        segments.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return segments;
}

bool contains(const auto& list, std::string_view value) {
    for (std::string_view item : list)
        if (item == value) return true;
    return false;
}

}  // namespace

bool isOpenRequest(std::string_view method, std::string_view path) {
    if (method != "GET" && method != "HEAD") return false;
    path = pathWithoutQuery(path);
    return path == "/" || path == "/health" || path == "/api/v1/health" || path == "/dashboard" ||
           path.starts_with("/dashboard/");
}

bool tenantMayReach(const std::string& tenant, std::string_view method, std::string_view path,
                    std::string_view header_tenant, std::string_view body) {
    if (!header_tenant.empty() && header_tenant != tenant) return false;
    // A body may name the tenant it acts for (the vector routes read it).
    if (body.find("\"tenant_id\"") != std::string_view::npos) {
        const nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
        if (parsed.is_object() && parsed.contains("tenant_id") && parsed["tenant_id"] != tenant) return false;
    }
    path = pathWithoutQuery(path);
    if (!path.starts_with("/api/v1/")) return false;
    const std::vector<std::string_view> s = segmentsOf(path.substr(8));
    // A segment naming a tenant is compared as the handler will read it.
    auto names_tenant = [&](std::size_t i) { return i < s.size() && percentDecode(s[i]) == tenant; };
    const std::string_view area = s[0];
    if (contains(kTenantAreas, area)) return true;
    if (area == "storage") return names_tenant(1);
    if (area == "git") return s.size() >= 2 && s[1] == "repos";
    if (area == "auth") return s.size() == 2 && s[1] == "whoami";
    if (area == "openapi.json") return s.size() == 1;
    if (area == "tenants")
        return (method == "GET" || method == "HEAD") && names_tenant(1) &&
               (s.size() == 2 || (s.size() == 3 && s[2] == "usage"));
    if (area == "vector") {
        if (s.size() < 2 || s[1] == "config" || s[1] == "health" || s[1] == "metrics") return false;
        const bool per_tenant = s[1] == "namespaces" || s[1] == "documents" || s[1] == "sources";
        return !per_tenant || s.size() == 2 || (s.size() == 3 && s[2].empty()) || names_tenant(2);
    }
    return false;
}

std::string presentedKey(std::string_view raw) {
    std::string key = headerValue(raw, "X-API-Key");
    if (!key.empty()) return key;
    const std::string authorization = headerValue(raw, "Authorization");
    constexpr std::string_view kBearer = "Bearer ";
    if (authorization.size() > kBearer.size() && authorization.compare(0, kBearer.size(), kBearer) == 0)
        return authorization.substr(kBearer.size());
    return "";
}

}  // namespace vostra::data
