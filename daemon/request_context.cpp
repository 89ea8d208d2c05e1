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

// The header block of one request, lowered at most once however many
// headers are looked up in it.
class HeaderBlock {
public:
    explicit HeaderBlock(std::string_view raw) : block_(headerBlock(raw)) {}

    std::string value(std::string_view name) {
        std::string pattern = "\r\n" + std::string(name) + ": ";
        std::size_t at = block_.find(pattern);
        if (at == std::string_view::npos) {
            if (!lowered_ready_) {
                lowered_ = lowered(block_);
                lowered_ready_ = true;
            }
            at = lowered_.find(lowered(pattern));
        }
        if (at == std::string_view::npos) return {};
        // Lowering keeps every offset, so the value is cut from the original.
        std::size_t begin = at + pattern.size();
        std::size_t end = block_.find("\r\n", begin);
        return std::string(block_.substr(begin, end == std::string_view::npos ? end : end - begin));
    }

private:
    std::string_view block_;
    std::string lowered_;
    bool lowered_ready_ = false;
};

}  // namespace

std::string headerValue(std::string_view raw, std::string_view name) {
    return HeaderBlock(raw).value(name);
}

TenantContext extractTenantFromRequest(std::string_view raw) {
    HeaderBlock headers(raw);
    TenantContext context;
    std::string tenant = headers.value("X-Tenant-Id");
    if (tenant.empty()) tenant = prefixBeforeDot(headers.value("X-API-Key"));
    if (tenant.empty()) {
        static constexpr std::string_view kBearer = "Bearer ";
        std::string authorization = headers.value("Authorization");
        if (authorization.starts_with(kBearer))
            tenant = prefixBeforeDot(authorization.substr(kBearer.size()));
    }
    if (!tenant.empty()) context.tenant_id = std::move(tenant);
    context.org_id = headers.value("X-Vostra-Org-Id");
    context.user_id = headers.value("X-Vostra-User-Id");
    return context;
}

TenantContext& currentTenant() {
    thread_local TenantContext context;
    return context;
}

}  // namespace vostra::data
