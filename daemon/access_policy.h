// Who may send which request when the daemon requires keys ("keys" mode):
// the open requests (health, the root redirect, the dashboard's pages),
// and what a tenant key may reach (its own storage, vector namespaces,
// agent documents, workspaces, sandboxes and git repositories; nothing of
// the daemon, data sources, tenants, NFS, forges or science keys). Admin
// keys reach everything. Pure functions of the request; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace vostra::data {

// True for the requests served without a key.
bool isOpenRequest(std::string_view method, std::string_view path);

// Whether a key of `tenant` may send this request. `header_tenant` is the
// "X-Tenant-Id" header (empty when absent); `body` the request body, whose
// "tenant_id", when it names one, must be the key's too.
bool tenantMayReach(const std::string& tenant, std::string_view method, std::string_view path,
                    std::string_view header_tenant, std::string_view body);

// The key a request presents: "X-API-Key", else a "Bearer" token of
// "Authorization"; empty when neither.
std::string presentedKey(std::string_view raw);

}  // namespace vostra::data
