// S3Backend: the storage backend that keeps each tenant's files as objects
// in one bucket of an S3-compatible object store (AWS, Ceph, MinIO, …),
// under the key tenant + "/" + the sanitised path. Requests are path-style
// ("<endpoint>/<bucket>/<key>"), carry the SHA-256 of their payload and are
// signed with AWS Signature Version 4. Owned by StorageService.
//
// A folder is a key prefix; mkdir stores an empty marker object whose key
// ends in "/" (the tenant root's marker is "<tenant>/"). Listings follow
// continuation tokens, so usage and recursive removal see every key; a
// listing returns at most kMaxListed entries. Nothing is retried; a
// response counts as success when its status is 2xx, and each failure text
// carries the status and the service's error code and message.
//
// Downloads for streaming land in an unnamed temporary file (in TMPDIR),
// never in memory; uploads are sent from the caller's buffer without a
// copy. Tenant usage comes from an ObjectUsageCache (see there).
//
// Thread-safety: every request runs on a transport handle of its own, lent
// by a pool that keeps idle handles with their open connections (so that a
// request does not pay for a new one); the other mutable state after
// initialize() is the usage cache. Both guard themselves.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "common/curl_handle.h"
#include "storage/object_usage.h"
#include "storage/s3_listing.h"
#include "storage/s3_signer.h"
#include "storage/storage_backend.h"

namespace vostra::data {

class S3Backend final : public StorageBackend {
public:
    static constexpr const char* kDefaultRegion = "us-east-1";
    // How long a tenant's usage figure is trusted before it is listed anew.
    static constexpr std::chrono::seconds kUsageMaxAge{60};
    // Entries one listing gathers at most (sorted and sliced afterwards).
    static constexpr std::size_t kMaxListed = 100000;
    // The user-metadata name under which a file's SHA-256 is kept; hidden
    // from the metadata callers see.
    static constexpr std::string_view kChecksumMetadata = "vostra-sha256";

    S3Backend() = default;
    S3Backend(const S3Backend&) = delete;
    S3Backend& operator=(const S3Backend&) = delete;

    // Applies the defaults (region "us-east-1", the AWS endpoint of the
    // region), then checks the bucket with one signed listing request.
    // False with a line on standard error when the bucket is not set, or
    // the bucket cannot be read (the service's error code is printed).
    bool initialize(const StorageServiceConfig& config) override;
    void shutdown() override {}

    // PUT with the content type (detected from the short table when empty)
    // and each metadata pair as "x-amz-meta-" + key; metadata that cannot
    // travel in a header (control or non-ASCII characters, a name that is
    // no header token) is refused.
    StorageResult write(const std::string& tenant, const std::string& path, const std::string& data,
                        const std::string& content_type, const Metadata& metadata) override;
    // GET, with a "Range" header when a slice is asked for; a slice that
    // starts past the end is empty.
    StorageResult read(const std::string& tenant, const std::string& path, int64_t offset,
                       int64_t length) override;
    StorageResult openFile(const std::string& tenant, const std::string& path,
                           OpenedFile& file) override;
    // Lists what lies below the path (markers and folders included), then
    // deletes each key and the object itself. Without `recursive` a folder
    // with anything in it is refused.
    StorageResult remove(const std::string& tenant, const std::string& path,
                         bool recursive) override;
    // ListObjectsV2 with the delimiter "/" unless recursive; folders come
    // from common prefixes and markers (and, when recursive, from the keys'
    // own prefixes). "Path not found" when nothing lies there.
    StorageResult list(const std::string& tenant, const std::string& path, bool recursive,
                       const std::string& pattern, int32_t limit, int32_t offset) override;
    // HEAD of the object, else of its folder marker, else a folder that
    // exists only as a prefix; "Object not found: " + path when none.
    StorageResult stat(const std::string& tenant, const std::string& path) override;
    StorageResult mkdir(const std::string& tenant, const std::string& path) override;
    // Server-side copies ("x-amz-copy-source"), a folder key by key; move
    // deletes the sources once every copy has succeeded.
    StorageResult move(const std::string& tenant, const std::string& from,
                       const std::string& to) override;
    StorageResult copy(const std::string& tenant, const std::string& from,
                       const std::string& to) override;

    bool createTenantDirectory(const std::string& tenant) override;
    bool deleteTenantDirectory(const std::string& tenant) override;
    TenantUsage getTenantUsage(const std::string& tenant) override;
    // "s3://" + bucket + "/" + the object key.
    std::string getAbsolutePath(const std::string& tenant, const std::string& path) const override;

    const std::string& endpoint() const { return endpoint_; }
    const std::string& region() const { return region_; }

private:
    struct Response;
    struct Call;

    // One signed request. `sink` >= 0 receives a 2xx body instead of memory.
    Response send(const Call& call) const;
    // Every page of a listing under `prefix`; `visit` returns false to stop.
    // False (with the failed response in `failure`) when a page fails.
    bool listPages(const std::string& prefix, bool recursive, int max_keys,
                   const std::function<bool(const s3::ListPage&)>& visit,
                   Response& failure) const;
    // tenant + "/" + the sanitised path (the root: tenant + "/").
    static std::string buildObjectKey(const std::string& tenant, const std::string& path);
    // What lies in the folder `key` + "/": its keys with their sizes.
    bool folderKeys(const std::string& key, std::vector<s3::ListedObject>& keys,
                    Response& failure) const;
    StorageResult transfer(const std::string& tenant, const std::string& from,
                           const std::string& to, bool erase_source);
    StorageResult copyObject(const std::string& from_key, const std::string& to_key) const;
    FileEntry describe(const std::string& rel, const Response& response) const;

    std::string endpoint_;
    std::string bucket_;
    std::string region_;
    std::string access_key_;
    std::string secret_key_;
    std::string host_;
    // Declared before usage_, whose listings use it, so it outlives them.
    std::unique_ptr<CurlHandlePool> handles_;
    std::unique_ptr<ObjectUsageCache> usage_;
};

}  // namespace vostra::data
