#include "security/api_key_store.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/atomic_file.h"
#include "common/file_name.h"

namespace vostra::security {
namespace {

using nlohmann::json;

constexpr std::size_t kSecretBytes = 24;
constexpr std::size_t kSaltBytes = 16;

std::string toHex(std::string_view raw) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(raw.size() * 2);
    for (unsigned char c : raw) {
        hex.push_back(kDigits[c >> 4]);
        hex.push_back(kDigits[c & 15]);
    }
    return hex;
}

bool fromHex(std::string_view hex, std::string& raw) {
    auto value = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    if (hex.size() % 2) return false;
    raw.clear();
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = value(hex[i]), low = value(hex[i + 1]);
        if (high < 0 || low < 0) return false;
        raw.push_back(static_cast<char>(high * 16 + low));
    }
    return true;
}

bool sameDigest(const std::string& a, const std::string& b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::string sha256(std::string_view data) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
    return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

std::string randomSecretHex(std::size_t bytes) {
    std::string raw(bytes, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(raw.data()), static_cast<int>(bytes)) != 1)
        throw std::runtime_error("No random bytes for a secret");
    return toHex(raw);
}

json IssuedKey::toJson() const {
    json out = {{"id", id}, {"tenant_id", tenant}, {"created_at", created_at}};
    if (!key.empty()) out["key"] = key;
    return out;
}

ApiKeyStore::ApiKeyStore(std::string file) : file_(std::move(file)) {}

Status ApiKeyStore::load() {
    if (file_.empty() || !std::filesystem::exists(file_)) return Status::success();
    std::ifstream in(file_);
    const json document = json::parse(in, nullptr, false);
    const Status unreadable = Status::failure(ErrorKind::Internal, "Cannot read the tenant key file " + file_);
    if (!document.is_object() || !document.value("keys", json()).is_array()) return unreadable;
    std::vector<Stored> keys;
    for (const json& entry : document["keys"]) {
        Stored key;
        if (!entry.is_object() || !fromHex(entry.value("hash", ""), key.digest) ||
            key.digest.size() != SHA256_DIGEST_LENGTH)
            return unreadable;
        key.id = entry.value("id", "");
        key.tenant = entry.value("tenant_id", "");
        key.salt = entry.value("salt", "");
        key.created_at = entry.value("created_at", int64_t{0});
        if (key.id.empty() || key.tenant.empty() || key.salt.empty()) return unreadable;
        keys.push_back(std::move(key));
    }
    std::lock_guard lock(mutex_);
    keys_ = std::move(keys);
    return Status::success();
}

Status ApiKeyStore::save() const {
    if (file_.empty()) return Status::success();
    json keys = json::array();
    for (const Stored& key : keys_)
        keys.push_back({{"id", key.id},
                        {"tenant_id", key.tenant},
                        {"salt", key.salt},
                        {"hash", toHex(key.digest)},
                        {"created_at", key.created_at}});
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), error);
    return writeFileAtomically(file_, json{{"version", 1}, {"keys", keys}}.dump(2), 0600);
}

void ApiKeyStore::setAdminKeys(const std::vector<std::string>& keys) {
    std::vector<std::string> digests;
    for (const std::string& key : keys)
        if (!key.empty()) digests.push_back(sha256(key));
    std::lock_guard lock(mutex_);
    admin_digests_ = std::move(digests);
}

Status ApiKeyStore::loadAdminKeyFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) return Status::failure(ErrorKind::Internal, "Cannot read the admin key file " + path);
    std::vector<std::string> digests;
    for (std::string line; std::getline(in, line);) {
        while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
        const std::size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#') continue;
        digests.push_back(sha256(line.substr(start)));
    }
    std::lock_guard lock(mutex_);
    admin_digests_.insert(admin_digests_.end(), digests.begin(), digests.end());
    return Status::success();
}

std::size_t ApiKeyStore::adminKeyCount() const {
    std::lock_guard lock(mutex_);
    return admin_digests_.size();
}

Principal ApiKeyStore::authenticate(const std::string& presented) const {
    Principal principal;
    if (presented.empty()) return principal;
    const std::string digest = sha256(presented);
    std::lock_guard lock(mutex_);
    // Every admin digest is compared, matching or not.
    bool admin = false;
    for (const std::string& known : admin_digests_) admin |= sameDigest(digest, known);
    if (admin) {
        principal.kind = Principal::Kind::Admin;
        return principal;
    }
    const std::size_t dot = presented.find('.');
    if (dot == std::string::npos || dot == 0) return principal;
    const std::string tenant = presented.substr(0, dot);
    const std::string_view secret = std::string_view(presented).substr(dot + 1);
    bool matched = false;
    for (const Stored& key : keys_) {
        if (key.tenant != tenant) continue;
        std::string salted = key.salt;
        salted.append(secret);
        matched |= sameDigest(sha256(salted), key.digest);
    }
    if (matched) {
        principal.kind = Principal::Kind::Tenant;
        principal.tenant = tenant;
    }
    return principal;
}

Status ApiKeyStore::issue(const std::string& tenant, IssuedKey& out) {
    if (std::string problem = fileNameProblem(tenant); !problem.empty() || tenant.find('.') != std::string::npos)
        return Status::failure(ErrorKind::Invalid, "Invalid tenant id for a key: " + tenant);
    Stored key;
    key.id = "key-" + randomSecretHex(8);
    key.tenant = tenant;
    key.salt = randomSecretHex(kSaltBytes);
    const std::string secret = randomSecretHex(kSecretBytes);
    key.digest = sha256(key.salt + secret);
    key.created_at = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    std::lock_guard lock(mutex_);
    keys_.push_back(key);
    if (Status saved = save(); !saved) {
        keys_.pop_back();
        return saved;
    }
    out = {key.id, tenant, tenant + "." + secret, key.created_at};
    return Status::success();
}

std::vector<IssuedKey> ApiKeyStore::list(const std::string& tenant) const {
    std::vector<IssuedKey> out;
    std::lock_guard lock(mutex_);
    for (const Stored& key : keys_)
        if (key.tenant == tenant) out.push_back({key.id, key.tenant, "", key.created_at});
    return out;
}

Status ApiKeyStore::revoke(const std::string& tenant, const std::string& id) {
    std::lock_guard lock(mutex_);
    auto found = std::find_if(keys_.begin(), keys_.end(),
                              [&](const Stored& key) { return key.tenant == tenant && key.id == id; });
    if (found == keys_.end()) return Status::failure(ErrorKind::NotFound, "API key not found");
    const Stored removed = *found;
    keys_.erase(found);
    if (Status saved = save(); !saved) {
        keys_.push_back(removed);
        return saved;
    }
    return Status::success();
}

}  // namespace vostra::security
