#include "daemon/request_context.h"

#include <algorithm>
#include <cctype>

namespace vostra::data {
namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view headerBlock(std::string_view raw) {
    std::size_t end = raw.find("\r\n\r\n");
    return end == std::string_view::npos ? raw : raw.substr(0, end + 2);
}

std::string prefixBeforeDot(const std::string& value) {
    std::size_t dot = value.find('.');
    return dot == std::string::npos ? std::string() : value.substr(0, dot);
}

}  // namespace

std::string headerValue(std::string_view raw, std::string_view name) {
    std::string_view block = headerBlock(raw);
    std::string pattern = "\r\n" + std::string(name) + ": ";
    std::size_t at = block.find(pattern);
    if (at == std::string_view::npos) at = lowered(block).find(lowered(pattern));
    if (at == std::string_view::npos) return {};

    std::size_t begin = at + pattern.size();
    std::size_t end = block.find("\r\n", begin);
    return std::string(block.substr(begin, end == std::string_view::npos ? end : end - begin));
}

TenantContext extractTenantFromRequest(std::string_view raw) {
    TenantContext context;
    std::string tenant = headerValue(raw, "X-Tenant-Id");
    if (tenant.empty()) tenant = prefixBeforeDot(headerValue(raw, "X-API-Key"));
    if (tenant.empty()) {
        static constexpr std::string_view kBearer = "Bearer ";
        std::string authorization = headerValue(raw, "Authorization");
        if (authorization.starts_with(kBearer))
            tenant = prefixBeforeDot(authorization.substr(kBearer.size()));
    }
    if (!tenant.empty()) context.tenant_id = std::move(tenant);
    context.org_id = headerValue(raw, "X-Vostra-Org-Id");
    context.user_id = headerValue(raw, "X-Vostra-User-Id");
    return context;
}

TenantContext& currentTenant() {
    thread_local TenantContext context;
    return context;
}

}  // namespace vostra::data
