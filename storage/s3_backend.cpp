#include "storage/s3_backend.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>

#include "common/curl_handle.h"
#include "common/log.h"
#include "storage/checksum.h"
#include "storage/content_type.h"
#include "storage/path_rules.h"
#include "storage/storage_service_config.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[StorageService] ");
constexpr long kTimeoutSeconds = 30;
// An error document is short; anything longer is cut, not collected.
constexpr std::size_t kMaxErrorBody = 64 * 1024;
constexpr int kPageSize = 1000;
// Downloads up to this size stay in memory; larger ones go to a spool file.
constexpr uint64_t kSpoolAbove = 1 << 20;
// Fewer, larger reads and writes per transfer than libcurl's defaults.
constexpr long kReceiveBuffer = 512 * 1024;
constexpr long kSendBuffer = 1024 * 1024;
const std::string kEmptyPayloadHash = calculateChecksum("");

StorageResult succeeded() {
    StorageResult result;
    result.success = true;
    return result;
}

std::string lowerCase(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return out;
}

// RFC 7230 token characters: what a header name may hold.
bool isHeaderToken(std::string_view name) {
    if (name.empty()) return false;
    for (unsigned char c : name)
        if (!(std::isalnum(c) || std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                                      std::string_view::npos))
            return false;
    return true;
}

bool isPrintableAscii(std::string_view value) {
    for (unsigned char c : value)
        if (c < 0x20 || c > 0x7E) return false;
    return true;
}

std::chrono::system_clock::time_point parseTime(const std::string& text, const char* format) {
    std::tm parts{};
    if (text.empty() || !strptime(text.c_str(), format, &parts)) return {};
    return std::chrono::system_clock::from_time_t(timegm(&parts));
}

// An unnamed file for a download, removed by the kernel when closed.
int openSpoolFile() {
    const std::string dir = std::filesystem::temp_directory_path().string();
    int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) return fd;
    std::string name = dir + "/vostra-s3-XXXXXX";
    fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0) ::unlink(name.c_str());
    return fd;
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

struct S3Backend::Response {
    long status = 0;
    std::string body;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string transport_error;                 // set when no answer came
    // A large 2xx body goes to this spool file instead of `body` when the
    // call asked for it (spool_large).
    bool spool_large = false;
    bool spool_chosen = false;
    bool spool_failed = false;
    OpenedFile spool;
    uint64_t spooled = 0;

    bool ok() const { return transport_error.empty() && status >= 200 && status < 300; }

    std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }

    // The status with the service's error code and message, or what kept
    // the request from being answered.
    std::string detail() const {
        if (!transport_error.empty()) return transport_error;
        std::string text = std::to_string(status);
        const std::string service = s3::errorDetail(body);
        return service.empty() ? text : text + " " + service;
    }

    ErrorKind kind() const {
        if (!transport_error.empty()) return ErrorKind::Unavailable;
        switch (status) {
            case 400:
            case 411:
            case 413: return ErrorKind::Invalid;
            case 404: return ErrorKind::NotFound;
            case 409: return ErrorKind::Conflict;
            default: return status >= 500 || status == 401 || status == 403
                                ? ErrorKind::Unavailable
                                : ErrorKind::Internal;
        }
    }
};

struct S3Backend::Call {
    std::string method = "GET";
    std::string key;
    s3::Pairs query;
    s3::Pairs headers;
    std::string_view body;
    std::string payload_hash;  // of `body`; computed when empty
    bool spool_large = false;  // see Response::spool
};

namespace {

struct UploadCursor {
    std::string_view rest;
};

size_t readBody(char* buffer, size_t size, size_t count, void* cursor) {
    auto& rest = static_cast<UploadCursor*>(cursor)->rest;
    const std::size_t n = std::min(rest.size(), size * count);
    std::memcpy(buffer, rest.data(), n);
    rest.remove_prefix(n);
    return n;
}

}  // namespace

S3Backend::Response S3Backend::send(const Call& call) const {
    Response response;
    response.spool_large = call.spool_large;

    s3::RequestToSign request;
    request.method = call.method;
    request.path = s3::objectPath(bucket_, call.key);
    request.query = call.query;
    request.payload_hash = !call.payload_hash.empty() ? call.payload_hash
                           : call.body.empty()         ? kEmptyPayloadHash
                                                       : calculateChecksum(call.body);
    request.timestamp = s3::currentTimestamp();
    request.headers = {{"host", host_},
                       {"x-amz-content-sha256", request.payload_hash},
                       {"x-amz-date", request.timestamp}};
    request.headers.insert(request.headers.end(), call.headers.begin(), call.headers.end());
    const s3::Signature signature = s3::sign(request, access_key_, secret_key_, region_);

    std::string url = endpoint_ + request.path;
    if (!call.query.empty()) url += "?" + s3::canonicalQuery(call.query);

    std::string ignored;
    const CurlHandlePool::Lease handle = handles_->lease(url, ignored, kTimeoutSeconds);
    if (!handle) {
        response.transport_error = "Failed to initialize curl";
        return response;
    }
    CURL* curl = handle.get();
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBuffer);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kSendBuffer);

    curl_slist* list = nullptr;
    // A header that fails to append leaves the request unsigned for it; the
    // service then refuses, so the failure still shows.
    auto add = [&list](const std::string& line) {
        if (curl_slist* grown = curl_slist_append(list, line.c_str())) list = grown;
    };
    add("Host: " + host_);
    add("Authorization: " + signature.authorization);
    add("x-amz-date: " + request.timestamp);
    add("x-amz-content-sha256: " + request.payload_hash);
    for (const auto& [name, value] : call.headers)
        add(name + ": " + value);
    add("Expect:");  // no 100-continue round trip before each upload
    CurlHeaders headers(list);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());

    UploadCursor upload{call.body};
    if (call.method == "PUT") {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
        curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                         static_cast<curl_off_t>(call.body.size()));
    } else if (call.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (call.method != "GET") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, call.method.c_str());
    }

    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION,
                     +[](char* data, size_t size, size_t count, void* target) -> size_t {
                         auto* r = static_cast<Response*>(target);
                         const std::string_view line(data, size * count);
                         if (line.starts_with("HTTP/")) {
                             // A new answer (after a 100 Continue): its status
                             // decides where the body goes.
                             r->headers.clear();
                             const std::size_t space = line.find(' ');
                             r->status = space == std::string_view::npos
                                             ? 0
                                             : std::atol(std::string(line.substr(space + 1, 3)).c_str());
                         } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
                             std::string_view value = line.substr(colon + 1);
                             while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
                                 value.remove_prefix(1);
                             while (!value.empty() &&
                                    (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
                                 value.remove_suffix(1);
                             r->headers[lowerCase(line.substr(0, colon))] = std::string(value);
                         }
                         return size * count;
                     });
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION,
                     +[](char* data, size_t size, size_t count, void* target) -> size_t {
                         auto* r = static_cast<Response*>(target);
                         const std::size_t n = size * count;
                         const bool ok = r->status >= 200 && r->status < 300;
                         if (r->spool_large && ok && !r->spool_chosen) {
                             r->spool_chosen = true;
                             const auto length = r->headers.find("content-length");
                             const bool small =
                                 length != r->headers.end() &&
                                 std::strtoull(length->second.c_str(), nullptr, 10) <= kSpoolAbove;
                             if (!small) r->spool = OpenedFile(openSpoolFile(), 0);
                             r->spool_failed = !small && r->spool.fd() < 0;
                             if (small) r->body.reserve(std::strtoull(length->second.c_str(), nullptr, 10));
                         }
                         if (r->spool_failed) return 0;
                         if (r->spool.fd() >= 0 && ok) {
                             if (!writeAll(r->spool.fd(), data, n)) {
                                 r->spool_failed = true;
                                 return 0;
                             }
                             r->spooled += n;
                             return n;
                         }
                         if (r->spool_large && !ok && r->body.size() >= kMaxErrorBody) return n;
                         r->body.append(data, n);
                         return n;
                     });
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);

    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    if (code != CURLE_OK) {
        response.transport_error = response.spool_failed ? "cannot write the download to a spool file"
                                                         : curl_easy_strerror(code);
    }
    return response;
}


namespace {

StorageResult failedWith(const std::string& prefix, ErrorKind kind, const std::string& detail) {
    return StorageResult::failure(kind, prefix + detail);
}

}  // namespace

bool S3Backend::initialize(const StorageServiceConfig& config) {
    bucket_ = config.s3_bucket;
    region_ = config.s3_region.empty() ? kDefaultRegion : config.s3_region;
    endpoint_ = config.s3_endpoint.empty() ? "https://s3." + region_ + ".amazonaws.com"
                                           : config.s3_endpoint;
    while (endpoint_.ends_with('/'))
        endpoint_.pop_back();
    access_key_ = config.s3_access_key;
    secret_key_ = config.s3_secret_key;
    if (bucket_.empty()) {
        kLog.error("S3 bucket not configured");
        return false;
    }
    const std::size_t scheme = endpoint_.find("://");
    host_ = scheme == std::string::npos ? endpoint_ : endpoint_.substr(scheme + 3);
    host_ = host_.substr(0, host_.find('/'));

    handles_ = std::make_unique<CurlHandlePool>();
    usage_ = std::make_unique<ObjectUsageCache>(
        [this](const std::string& tenant, ObjectUsageCache::Objects& objects) {
            const std::string prefix = tenant + "/";
            Response failure;
            return listPages(
                prefix, true, kPageSize,
                [&](const s3::ListPage& page) {
                    for (const s3::ListedObject& object : page.objects)
                        objects[object.key.substr(prefix.size())] = object.size;
                    return true;
                },
                failure);
        },
        kUsageMaxAge);

    // One signed request now, so that a missing bucket or a wrong key pair
    // is reported at start-up in the service's own words.
    Call check;
    check.query = {{"list-type", "2"}, {"max-keys", "1"}};
    const Response answer = send(check);
    if (!answer.ok()) {
        kLog.error("S3 bucket check failed for ", bucket_, " at ", endpoint_, ": ", answer.detail());
        return false;
    }
    kLog.info("S3 backend initialized: ", endpoint_, " bucket ", bucket_);
    return true;
}

std::string S3Backend::buildObjectKey(const std::string& tenant, const std::string& path) {
    return tenant + "/" + sanitizePath(path);
}

std::string S3Backend::getAbsolutePath(const std::string& tenant, const std::string& path) const {
    return "s3://" + bucket_ + "/" + buildObjectKey(tenant, path);
}

FileEntry S3Backend::describe(const std::string& rel, const Response& response) const {
    FileEntry entry;
    entry.path = rel;
    entry.name = lastComponent(rel);
    entry.content_type = response.header("content-type");
    // A slice's answer names the whole size after the "/" of Content-Range.
    const std::string range = response.header("content-range");
    const std::string size = range.empty() ? response.header("content-length")
                                           : range.substr(range.rfind('/') + 1);
    entry.size_bytes = std::max<int64_t>(0, std::atoll(size.c_str()));
    entry.modified_at = entry.created_at =
        parseTime(response.header("last-modified"), "%a, %d %b %Y %H:%M:%S");
    const std::string meta = "x-amz-meta-";
    for (const auto& [name, value] : response.headers) {
        if (!name.starts_with(meta)) continue;
        const std::string key = name.substr(meta.size());
        if (key == kChecksumMetadata)
            entry.checksum = value;
        else
            entry.metadata[key] = value;
    }
    return entry;
}

bool S3Backend::listPages(const std::string& prefix, bool recursive, int max_keys,
                          const std::function<bool(const s3::ListPage&)>& visit,
                          Response& failure) const {
    std::string token;
    while (true) {
        Call call;
        call.query = {{"list-type", "2"}, {"prefix", prefix}, {"max-keys", std::to_string(max_keys)}};
        if (!recursive) call.query.emplace_back("delimiter", "/");
        if (!token.empty()) call.query.emplace_back("continuation-token", token);
        Response response = send(call);
        s3::ListPage page;
        if (!response.ok() || !s3::parseListPage(response.body, page)) {
            if (response.ok()) response.transport_error = "unreadable listing";
            failure = std::move(response);
            return false;
        }
        if (!visit(page) || !page.truncated) return true;
        token = page.next_token;
    }
}

bool S3Backend::folderKeys(const std::string& key, std::vector<s3::ListedObject>& keys,
                           Response& failure) const {
    const std::string prefix = key.ends_with('/') ? key : key + "/";
    return listPages(
        prefix, true, kPageSize,
        [&](const s3::ListPage& page) {
            keys.insert(keys.end(), page.objects.begin(), page.objects.end());
            return true;
        },
        failure);
}

StorageResult S3Backend::write(const std::string& tenant, const std::string& path,
                               const std::string& data, const std::string& content_type,
                               const Metadata& metadata) {
    const std::string rel = sanitizePath(path);
    if (rel.empty())
        return StorageResult::failure(ErrorKind::Invalid, "Failed to open file for writing: " + path);
    Call call;
    call.method = "PUT";
    call.key = tenant + "/" + rel;
    call.body = data;
    // The payload hash is the file's checksum: computed once for both.
    call.payload_hash = calculateChecksum(data);
    const std::string type = content_type.empty() ? detectBasicContentType(path) : content_type;
    call.headers.emplace_back("Content-Type", type);
    for (const auto& [key, value] : metadata) {
        // Each pair travels as a header: nothing in it may end the line or
        // be mangled on the way.
        if (!isHeaderToken(key) || !isPrintableAscii(value) || lowerCase(key) == kChecksumMetadata)
            return StorageResult::failure(ErrorKind::Invalid, "Invalid metadata for S3: " + key);
        call.headers.emplace_back("x-amz-meta-" + key, value);
    }
    const std::string& checksum = call.payload_hash;
    call.headers.emplace_back("x-amz-meta-" + std::string(kChecksumMetadata), checksum);

    const Response response = send(call);
    if (!response.ok()) return failedWith("S3 PUT failed: ", response.kind(), response.detail());
    usage_->recordStored(tenant, rel, static_cast<int64_t>(data.size()));

    StorageResult result = succeeded();
    FileEntry entry;
    entry.path = rel;
    entry.name = lastComponent(rel);
    entry.size_bytes = static_cast<int64_t>(data.size());
    entry.content_type = type;
    entry.checksum = checksum;
    entry.metadata = metadata;
    entry.created_at = entry.modified_at = std::chrono::system_clock::now();
    result.entry = std::move(entry);
    result.bytes_written = static_cast<int64_t>(data.size());
    return result;
}

StorageResult S3Backend::read(const std::string& tenant, const std::string& path, int64_t offset,
                              int64_t length) {
    const std::string rel = sanitizePath(path);
    Call call;
    call.key = tenant + "/" + rel;
    offset = std::max<int64_t>(offset, 0);
    if (length == 0) {
        call.method = "HEAD";
    } else if (offset > 0 || length > 0) {
        call.headers.emplace_back("Range", "bytes=" + std::to_string(offset) + "-" +
                                               (length > 0 ? std::to_string(offset + length - 1)
                                                           : std::string()));
    }
    Response response = send(call);
    // A slice that starts past the end is empty, as a file system's is.
    if (response.transport_error.empty() && response.status == 416) {
        call.method = "HEAD";
        call.headers.clear();
        response = send(call);
    }
    if (!response.ok()) return failedWith("S3 GET failed: ", response.kind(), response.detail());
    StorageResult result = succeeded();
    result.entry = describe(rel, response);
    if (call.method == "GET") result.data = std::move(response.body);
    result.bytes_read = static_cast<int64_t>(result.data.size());
    return result;
}

StorageResult S3Backend::openFile(const std::string& tenant, const std::string& path,
                                  OpenedFile& file) {
    const std::string rel = sanitizePath(path);
    Call call;
    call.key = tenant + "/" + rel;
    call.spool_large = true;
    Response response = send(call);
    if (!response.ok()) return failedWith("S3 GET failed: ", response.kind(), response.detail());
    StorageResult result = succeeded();
    result.entry = describe(rel, response);
    if (response.spool.fd() < 0) {  // small enough to have stayed in memory
        result.data = std::move(response.body);
        result.bytes_read = static_cast<int64_t>(result.data.size());
        return result;
    }
    if (::lseek(response.spool.fd(), 0, SEEK_SET) != 0)
        return StorageResult::failure(ErrorKind::Internal,
                                      "S3 GET failed: cannot rewind the spool file");
    result.bytes_read = static_cast<int64_t>(response.spooled);
    file = OpenedFile(response.spool.release(), response.spooled);
    return result;
}

StorageResult S3Backend::stat(const std::string& tenant, const std::string& path) {
    const std::string rel = sanitizePath(path);
    FileEntry folder;
    folder.path = rel;
    folder.name = lastComponent(rel);
    folder.is_directory = true;
    if (rel.empty()) {
        StorageResult result = succeeded();
        result.entry = folder;
        return result;
    }
    Call call;
    call.method = "HEAD";
    call.key = tenant + "/" + rel;
    Response response = send(call);
    if (response.ok()) {
        StorageResult result = succeeded();
        result.entry = describe(rel, response);
        return result;
    }
    if (response.kind() != ErrorKind::NotFound)
        return failedWith("S3 HEAD failed: ", response.kind(), response.detail());
    // Not a file: a folder has a marker, or at least something below it.
    bool found = false;
    if (!listPages(call.key + "/", true, 1,
                   [&](const s3::ListPage& page) {
                       found = !page.objects.empty();
                       return false;
                   },
                   response))
        return failedWith("S3 LIST failed: ", response.kind(), response.detail());
    if (!found) return StorageResult::failure(ErrorKind::NotFound, "Object not found: " + path);
    StorageResult result = succeeded();
    result.entry = folder;
    return result;
}

StorageResult S3Backend::list(const std::string& tenant, const std::string& path, bool recursive,
                              const std::string& pattern, int32_t limit, int32_t offset) {
    const std::string rel = sanitizePath(path);
    const std::string prefix = tenant + "/" + (rel.empty() ? "" : rel + "/");
    const std::string base = rel.empty() ? "" : rel + "/";
    std::vector<FileEntry> found;
    std::set<std::string> folders;
    bool exists = rel.empty();
    auto addFolder = [&](std::string_view rest) {
        std::string name = base + std::string(rest);
        if (folders.insert(name).second) {
            FileEntry entry;
            entry.path = name;
            entry.name = lastComponent(name);
            entry.is_directory = true;
            found.push_back(std::move(entry));
        }
    };

    Response failure;
    const bool listed = listPages(
        prefix, recursive, kPageSize,
        [&](const s3::ListPage& page) {
            exists = exists || !page.objects.empty() || !page.common_prefixes.empty();
            for (const std::string& common : page.common_prefixes) {
                std::string_view rest = std::string_view(common).substr(prefix.size());
                while (rest.ends_with('/'))
                    rest.remove_suffix(1);
                if (!rest.empty()) addFolder(rest);
            }
            for (const s3::ListedObject& object : page.objects) {
                std::string_view rest = std::string_view(object.key).substr(prefix.size());
                // Every folder on the way is an entry of a recursive listing.
                for (std::size_t slash = rest.find('/'); slash != std::string_view::npos;
                     slash = rest.find('/', slash + 1))
                    if (slash > 0) addFolder(rest.substr(0, slash));
                if (rest.empty() || rest.ends_with('/')) continue;  // markers
                FileEntry entry;
                entry.path = base + std::string(rest);
                entry.name = lastComponent(entry.path);
                entry.size_bytes = object.size;
                entry.content_type = detectBasicContentType(entry.name);
                entry.modified_at = entry.created_at =
                    parseTime(object.last_modified, "%Y-%m-%dT%H:%M:%S");
                found.push_back(std::move(entry));
            }
            return found.size() < kMaxListed;
        },
        failure);
    if (!listed) return failedWith("S3 LIST failed: ", failure.kind(), failure.detail());
    if (!exists) return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);

    if (!pattern.empty())
        std::erase_if(found, [&](const FileEntry& e) { return !matchesPattern(e.name, pattern); });
    StorageResult result = succeeded();
    result.entries = orderAndSlice(std::move(found), limit, offset);
    return result;
}

StorageResult S3Backend::mkdir(const std::string& tenant, const std::string& path) {
    const std::string rel = sanitizePath(path);
    const std::string key = tenant + "/" + rel;
    if (!rel.empty()) {
        Call head;
        head.method = "HEAD";
        head.key = key;
        const Response existing = send(head);
        if (existing.ok())
            return StorageResult::failure(ErrorKind::Conflict,
                                          "Path exists and is not a directory: " + path);
        if (existing.kind() != ErrorKind::NotFound)
            return failedWith("S3 mkdir failed: ", existing.kind(), existing.detail());
    }
    Call call;
    call.method = "PUT";
    // The root's key already ends in "/"; a marker never ends in "//".
    call.key = key.ends_with('/') ? key : key + "/";
    const Response response = send(call);
    if (!response.ok()) return failedWith("S3 mkdir failed: ", response.kind(), response.detail());
    usage_->recordStored(tenant, rel.empty() ? "" : rel + "/", 0);
    StorageResult result = succeeded();
    FileEntry entry;
    entry.path = rel;
    entry.name = lastComponent(rel);
    entry.is_directory = true;
    entry.created_at = entry.modified_at = std::chrono::system_clock::now();
    result.entry = std::move(entry);
    return result;
}

StorageResult S3Backend::remove(const std::string& tenant, const std::string& path,
                                bool recursive) {
    const std::string rel = sanitizePath(path);
    const std::string key = tenant + "/" + rel;
    const std::string prefix = rel.empty() ? key : key + "/";

    bool file_exists = false;
    if (!rel.empty()) {
        Call head;
        head.method = "HEAD";
        head.key = key;
        const Response existing = send(head);
        if (!existing.ok() && existing.kind() != ErrorKind::NotFound)
            return failedWith("S3 HEAD failed: ", existing.kind(), existing.detail());
        file_exists = existing.ok();
    }

    // The first page decides: nothing at all is "not found", anything but
    // the folder's own marker needs the recursive flag.
    Response failure;
    bool first_page = true;
    bool anything = file_exists;
    std::optional<StorageResult> refused;
    auto erase = [&](const std::string& doomed) {
        Call call;
        call.method = "DELETE";
        call.key = doomed;
        const Response response = send(call);
        if (!response.ok() && response.kind() != ErrorKind::NotFound) {
            refused = failedWith("S3 DELETE failed: ", response.kind(), response.detail());
            return false;
        }
        usage_->recordRemoved(tenant, doomed.substr(tenant.size() + 1));
        return true;
    };
    const bool listed = listPages(
        prefix, true, kPageSize,
        [&](const s3::ListPage& page) {
            if (first_page) {
                first_page = false;
                anything = anything || !page.objects.empty();
                const bool only_marker = page.objects.empty() ||
                                         (page.objects.size() == 1 && page.objects[0].key == prefix);
                if (!recursive && !only_marker) {
                    refused = StorageResult::failure(ErrorKind::Conflict,
                                                     "Directory not empty: " + path);
                    return false;
                }
            }
            for (const s3::ListedObject& object : page.objects)
                if (!erase(object.key)) return false;
            return true;
        },
        failure);
    if (refused) return *refused;
    if (!listed) return failedWith("S3 LIST failed: ", failure.kind(), failure.detail());
    if (!anything) return StorageResult::failure(ErrorKind::NotFound, "Path not found: " + path);
    if (file_exists && !erase(key)) return *refused;
    return succeeded();
}

StorageResult S3Backend::copyObject(const std::string& from_key, const std::string& to_key) const {
    Call call;
    call.method = "PUT";
    call.key = to_key;
    call.headers.emplace_back("x-amz-copy-source",
                              "/" + bucket_ + "/" + s3::uriEncode(from_key, true));
    const Response response = send(call);
    // A copy can fail after its 200 has been sent: the error is then the body.
    if (!response.ok() || response.body.find("<Error>") != std::string::npos)
        return failedWith("S3 COPY failed: ",
                          response.ok() ? ErrorKind::Unavailable : response.kind(),
                          response.detail());
    return succeeded();
}

StorageResult S3Backend::transfer(const std::string& tenant, const std::string& from,
                                  const std::string& to, bool erase_source) {
    const std::string from_rel = sanitizePath(from);
    const std::string to_rel = sanitizePath(to);
    const std::string from_key = tenant + "/" + from_rel;
    const std::string to_key = tenant + "/" + to_rel;

    Response source;
    if (!from_rel.empty()) {
        Call head;
        head.method = "HEAD";
        head.key = from_key;
        source = send(head);
        if (!source.ok() && source.kind() != ErrorKind::NotFound)
            return failedWith("S3 HEAD failed: ", source.kind(), source.detail());
    }
    const bool is_file = !from_rel.empty() && source.ok();
    std::vector<s3::ListedObject> below;
    Response failure;
    if (!is_file && !folderKeys(from_key, below, failure))
        return failedWith("S3 LIST failed: ", failure.kind(), failure.detail());
    if (!is_file && below.empty())
        return StorageResult::failure(ErrorKind::NotFound, "Source not found: " + from);

    const std::string failed = (erase_source ? "Failed to move: " : "Failed to copy: ") + from;
    if (!is_file && isSameOrBelow(to_rel, from_rel))
        return erase_source ? StorageResult::failure(ErrorKind::Conflict, failed)
                            : StorageResult::failure(ErrorKind::Invalid,
                                                     "Cannot copy a directory into itself: " + from);
    if (from_rel == to_rel)
        return erase_source ? succeeded() : StorageResult::failure(ErrorKind::Conflict, failed);
    if (to_rel.empty()) return StorageResult::failure(ErrorKind::Conflict, failed);

    StorageResult result = succeeded();
    if (is_file) {
        if (StorageResult copied = copyObject(from_key, to_key); !copied.success) return copied;
        const FileEntry entry = describe(to_rel, source);
        usage_->recordStored(tenant, to_rel, entry.size_bytes);
        result.entry = entry;
        if (erase_source) {
            Call call;
            call.method = "DELETE";
            call.key = from_key;
            const Response erased = send(call);
            if (!erased.ok())
                return failedWith("S3 DELETE failed: ", erased.kind(), erased.detail());
            usage_->recordRemoved(tenant, from_rel);
        }
        return result;
    }

    // A folder: every key below it, copied first and removed only when all
    // copies are there, so that a failure half-way loses nothing.
    const std::string from_prefix = from_key + (from_rel.empty() ? "" : "/");
    const std::string to_prefix = to_key + "/";
    for (const s3::ListedObject& object : below) {
        const std::string suffix = object.key.substr(from_prefix.size());
        if (StorageResult copied = copyObject(object.key, to_prefix + suffix); !copied.success)
            return copied;
        usage_->recordStored(tenant, to_rel + "/" + suffix, object.size);
    }
    if (erase_source) {
        for (const s3::ListedObject& object : below) {
            Call call;
            call.method = "DELETE";
            call.key = object.key;
            const Response erased = send(call);
            if (!erased.ok())
                return failedWith("S3 DELETE failed: ", erased.kind(), erased.detail());
            usage_->recordRemoved(tenant, object.key.substr(tenant.size() + 1));
        }
    }
    FileEntry entry;
    entry.path = to_rel;
    entry.name = lastComponent(to_rel);
    entry.is_directory = true;
    result.entry = std::move(entry);
    return result;
}

StorageResult S3Backend::move(const std::string& tenant, const std::string& from,
                              const std::string& to) {
    return transfer(tenant, from, to, true);
}

StorageResult S3Backend::copy(const std::string& tenant, const std::string& from,
                              const std::string& to) {
    return transfer(tenant, from, to, false);
}

bool S3Backend::createTenantDirectory(const std::string& tenant) {
    return mkdir(tenant, "").success;
}

bool S3Backend::deleteTenantDirectory(const std::string& tenant) {
    const StorageResult removed = remove(tenant, "", true);
    usage_->forget(tenant);
    return removed.success || removed.kind == ErrorKind::NotFound;
}

TenantUsage S3Backend::getTenantUsage(const std::string& tenant) {
    return usage_->usage(tenant);
}

}  // namespace vostra::data
