// Who a presented API key is: an admin key (from the configuration or its
// own file) or a tenant key "<tenant>.<secret>" issued by the daemon. Tenant
// keys are kept in their own file (mode 0600) as salted SHA-256 hashes of
// their secrets, with an id and a creation time; the secret is shown once,
// when the key is made, and never stored or logged.
//
// Every comparison is of fixed-length digests in constant time, so how long
// an answer takes does not tell how much of a wrong key was right.
// Thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/status.h"

namespace vostra::security {

struct Principal {
    enum class Kind { None, Admin, Tenant };
    Kind kind = Kind::None;
    std::string tenant;  // for Kind::Tenant

    bool admin() const { return kind == Kind::Admin; }
    bool known() const { return kind != Kind::None; }
};

struct IssuedKey {
    std::string id;          // "key-" + 16 hex digits
    std::string tenant;
    std::string key;         // "<tenant>.<secret>", only when just made
    int64_t created_at = 0;  // Unix seconds

    nlohmann::json toJson() const;  // without "key" when empty
};

class ApiKeyStore {
public:
    // `file` keeps the tenant keys (empty: in memory only).
    explicit ApiKeyStore(std::string file);
    ApiKeyStore(const ApiKeyStore&) = delete;
    ApiKeyStore& operator=(const ApiKeyStore&) = delete;

    // Reads the tenant keys; a missing file is an empty store. Internal
    // when the file is unreadable or not the store's form.
    Status load();
    // Admin keys: each non-empty string; replaces the previous set.
    void setAdminKeys(const std::vector<std::string>& keys);
    // Admin keys from a file, one per line; blank lines and "#" comments
    // are skipped. Internal when the file cannot be read.
    Status loadAdminKeyFile(const std::string& path);
    std::size_t adminKeyCount() const;

    // Who `presented` is; Kind::None for an unknown or malformed key.
    Principal authenticate(const std::string& presented) const;

    // A new key for `tenant` (Invalid for an id unfit for a file name),
    // saved before it is answered.
    Status issue(const std::string& tenant, IssuedKey& out);
    // The tenant's keys, oldest first, without secrets.
    std::vector<IssuedKey> list(const std::string& tenant) const;
    // NotFound "API key not found" when the tenant has no such key.
    Status revoke(const std::string& tenant, const std::string& id);

private:
    struct Stored {
        std::string id;
        std::string tenant;
        std::string salt;    // hex
        std::string digest;  // raw SHA-256 of salt and secret
        int64_t created_at = 0;
    };
    Status save() const;  // under mutex_

    std::string file_;
    mutable std::mutex mutex_;
    std::vector<std::string> admin_digests_;  // raw SHA-256 of each admin key
    std::vector<Stored> keys_;
};

// SHA-256 of `data`, raw.
std::string sha256(std::string_view data);
// `bytes` random bytes from the system's cryptographic generator, as hex.
std::string randomSecretHex(std::size_t bytes);

}  // namespace vostra::security
