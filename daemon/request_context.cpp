#include "daemon/request_context.h"

#include <algorithm>
#include <cctype>

namespace vostra::data {
namespace {

std::string_view headerBlock(std::string_view raw) {
    std::size_t end = raw.find("\r\n\r\n");
    return end == std::string_view::npos ? raw : raw.substr(0, end + 2);
}

std::string prefixBeforeDot(const std::string& value) {
    std::size_t dot = value.find('.');
    return dot == std::string::npos ? std::string() : value.substr(0, dot);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The headers of one request, looked up in place. A header is a line that
// starts with its name and ": "; the exact spelling wins over another case.
class HeaderBlock {
public:
    explicit HeaderBlock(std::string_view raw) : block_(headerBlock(raw)) {}

    std::string value(std::string_view name) const {
        std::string_view found = find(name, /*any_case=*/false);
        if (found.data() == nullptr) found = find(name, /*any_case=*/true);
        return std::string(found);
    }

private:
    std::string_view find(std::string_view name, bool any_case) const {
        // Every header line follows a "\r\n"; the request line never matches.
        for (std::size_t at = block_.find("\r\n"); at != std::string_view::npos;
             at = block_.find("\r\n", at + 2)) {
            std::string_view line = block_.substr(at + 2);
            line = line.substr(0, line.find("\r\n"));
            if (line.size() < name.size() + 2 || line.substr(name.size(), 2) != ": ") continue;
            const std::string_view head = line.substr(0, name.size());
            if (any_case ? equalsIgnoringCase(head, name) : head == name)
                return line.substr(name.size() + 2);
        }
        return {};
    }

    std::string_view block_;
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
