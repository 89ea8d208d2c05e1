// Who a request acts for, derived from its headers before dispatch and kept in
// thread-local storage of the client thread that serves it. Handlers of the
// storage, tenant and vector areas read it; the next request on the same
// thread replaces it.
#pragma once

#include <string>
#include <string_view>

namespace vostra::data {

struct TenantContext {
    std::string tenant_id = "default";
    std::string org_id;   // "X-Vostra-Org-Id"
    std::string user_id;  // "X-Vostra-User-Id"
};

// The value of header `name` in the raw request: an exact-case match first,
// then a case-insensitive one. Empty when absent. Only the header block is
// searched, so a body can never pose as a header.
std::string headerValue(std::string_view raw, std::string_view name);

// Tenant from "X-Tenant-Id", else the part of "X-API-Key" before its first
// ".", else the same of a "Bearer " token in "Authorization", else "default".
TenantContext extractTenantFromRequest(std::string_view raw);

// The context of the request being served on this thread.
TenantContext& currentTenant();

}  // namespace vostra::data
