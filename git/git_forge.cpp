#include "git/git_forge.h"

#include <algorithm>
#include <cctype>

#include "common/curl_handle.h"

namespace vostra::git {

using nlohmann::json;

namespace {

// A git the forge clients could not start at all.
constexpr const char* kGitNotRun = "Failed to execute git command";

constexpr std::string_view kPublicGitHubWeb = "https://github.com";
constexpr std::string_view kPublicGitHubWebWww = "https://www.github.com";
constexpr std::string_view kPublicGitHubApi = "https://api.github.com";
constexpr const char* kGitHubVersionHeader = "X-GitHub-Api-Version: 2022-11-28";

constexpr const char* kCurlInitFailed = "Failed to initialize CURL";
constexpr const char* kCurlError = "CURL error: ";
constexpr const char* kHttpError = "HTTP error ";
constexpr const char* kAnswerTooLarge = "Forge answer larger than 64 MiB";
constexpr const char* kInvalidAnswer = "Invalid JSON in forge answer";
constexpr const char* kInvalidToken = "Forge token holds a line break";
constexpr const char* kWrongType = "Invalid forge type for ";

constexpr std::string_view kCloneStarting = "Starting clone...";
constexpr std::string_view kCloneDone = "Clone complete";
constexpr std::string_view kPullStarting = "Pulling changes...";
constexpr std::string_view kPullDone = "Pull complete";
constexpr std::string_view kPushStarting = "Pushing changes...";
constexpr std::string_view kPushDone = "Push complete";
constexpr const char* kRemote = "origin";

// Large enough for any listing a forge pages out; a bound so that a broken
// or hostile server cannot make the daemon hold gigabytes.
constexpr std::size_t kMaxAnswerBytes = 64u << 20;
constexpr int kMaxRedirects = 5;
constexpr int kDefaultTimeoutSeconds = 30;

std::string withoutTrailingSlash(std::string text) {
    while (!text.empty() && text.back() == '/') text.pop_back();
    return text;
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// "scheme://host:port" of a URL, lower-cased: credentials are sent only
// while a request stays on the origin it started on.
std::string originOf(const std::string& url) {
    const std::size_t scheme_end = url.find("://");
    if (scheme_end == std::string::npos) return {};
    const std::size_t path_start = url.find_first_of("/?#", scheme_end + 3);
    return lowerCase(url.substr(0, path_start));
}

struct Collected {
    std::string body;
    bool too_large = false;
};

size_t collect(char* data, size_t size, size_t count, void* target) {
    auto* collected = static_cast<Collected*>(target);
    if (collected->body.size() + size * count > kMaxAnswerBytes) {
        collected->too_large = true;
        return 0;  // libcurl ends the transfer with a write error
    }
    collected->body.append(data, size * count);
    return size * count;
}

// One HTTP exchange, redirects not followed.
struct Exchange {
    bool started = false;  // a libcurl handle was made
    CURLcode code = CURLE_OK;
    std::string curl_text;
    long status = 0;
    std::string location;
    Collected answer;
};

struct RequestSpec {
    std::string url;
    std::string method;
    const std::string* body = nullptr;  // null: no body
    std::vector<std::string> headers;
    const ForgeAuth* basic = nullptr;  // user and password for basic auth
    long timeout_seconds = kDefaultTimeoutSeconds;
    bool verify_ssl = true;
};

Exchange perform(const RequestSpec& spec) {
    Exchange exchange;
    std::string unused;
    CurlHandle handle = newCurlHandle(spec.url, unused, spec.timeout_seconds);
    if (!handle) return exchange;
    exchange.started = true;
    CURL* curl = handle.get();
    char error_text[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &exchange.answer);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_text);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    // Redirects are followed by makeRequest, which decides per hop whether
    // the credentials may go along.
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    if (!spec.verify_ssl) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (spec.method == "POST") {
        const std::string& body = spec.body ? *spec.body : unused;
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    } else if (spec.method == "PUT" || spec.method == "PATCH" || spec.method == "DELETE") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, spec.method.c_str());
        if (spec.body) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(spec.body->size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, spec.body->c_str());
        }
    } else {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    }
    curl_slist* list = nullptr;
    for (const std::string& header : spec.headers) {
        curl_slist* longer = curl_slist_append(list, header.c_str());
        if (!longer) {
            curl_slist_free_all(list);
            exchange.started = false;
            return exchange;
        }
        list = longer;
    }
    const CurlHeaders headers(list);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
    if (spec.basic) {
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        curl_easy_setopt(curl, CURLOPT_USERNAME, spec.basic->username.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, spec.basic->password.c_str());
    }

    exchange.code = curl_easy_perform(curl);
    if (exchange.code != CURLE_OK) {
        exchange.curl_text = error_text[0] ? error_text : curl_easy_strerror(exchange.code);
        return exchange;
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &exchange.status);
    char* location = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &location) == CURLE_OK && location)
        exchange.location = location;
    return exchange;
}

bool isRedirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool hasLineBreak(const std::string& text) {
    return text.find_first_of("\r\n") != std::string::npos;
}

void report(const GitForge::ProgressCallback& progress, std::string_view text) {
    if (progress) progress(std::string(text));
}

}  // namespace

GitForge::~GitForge() = default;

std::string GitForge::apiBase() const {
    if (!config_.api_url.empty()) return withoutTrailingSlash(config_.api_url);
    const std::string web = withoutTrailingSlash(config_.url);
    switch (config_.type) {
        case ForgeType::GitHub: {
            const std::string lower = lowerCase(web);
            if (lower == kPublicGitHubWeb || lower == kPublicGitHubWebWww)
                return std::string(kPublicGitHubApi);
            return web + "/api/v3";
        }
        case ForgeType::GitLab:
            return web + "/api/v4";
        case ForgeType::Gitea:
            return web + "/api/v1";
        default:
            return web;
    }
}

ForgeResult<json> GitForge::makeRequest(const std::string& method, const std::string& path,
                                        const json& body) const {
    using Result = ForgeResult<json>;
    const std::string& token = config_.auth.token;
    if (hasLineBreak(token)) return Result::failure(kInvalidToken);

    std::vector<std::string> headers = {"Content-Type: application/json",
                                        "Accept: application/json",
                                        // A round trip saved per large body.
                                        "Expect:"};
    if (config_.type == ForgeType::GitHub) headers.emplace_back(kGitHubVersionHeader);
    std::string credential_header;
    if (!token.empty()) {
        switch (config_.type) {
            case ForgeType::GitHub: credential_header = "Authorization: Bearer " + token; break;
            case ForgeType::GitLab: credential_header = "PRIVATE-TOKEN: " + token; break;
            default: credential_header = "Authorization: token " + token; break;
        }
    }
    const bool basic = token.empty() && config_.auth.type == "basic" &&
                       !config_.auth.username.empty();

    RequestSpec spec;
    spec.url = apiBase() + path;
    spec.method = method;
    // Text the caller passed in may not be UTF-8; dump would throw on it.
    const std::string body_text =
        body.is_null() ? std::string() : body.dump(-1, ' ', false, json::error_handler_t::replace);
    if (!body.is_null()) spec.body = &body_text;
    spec.timeout_seconds =
        config_.timeout_seconds > 0 ? config_.timeout_seconds : kDefaultTimeoutSeconds;
    spec.verify_ssl = config_.verify_ssl;
    const std::string origin = originOf(spec.url);

    for (int hop = 0;; ++hop) {
        const bool same_origin = originOf(spec.url) == origin;
        spec.headers = headers;
        if (same_origin && !credential_header.empty()) spec.headers.push_back(credential_header);
        spec.basic = same_origin && basic ? &config_.auth : nullptr;

        const Exchange exchange = perform(spec);
        if (!exchange.started) return Result::failure(kCurlInitFailed);
        if (exchange.answer.too_large) return Result::failure(kAnswerTooLarge);
        if (exchange.code != CURLE_OK) return Result::failure(kCurlError + exchange.curl_text);

        if (isRedirect(exchange.status) && !exchange.location.empty() && hop < kMaxRedirects) {
            // As browsers do: 303, and 301/302 after a POST, continue as GET.
            if (exchange.status == 303 ||
                (exchange.status != 307 && exchange.status != 308 && spec.method == "POST")) {
                spec.method = "GET";
                spec.body = nullptr;
            }
            spec.url = exchange.location;
            continue;
        }
        if (exchange.status < 200 || exchange.status >= 300)
            return Result::failure(kHttpError + std::to_string(exchange.status), exchange.status);
        if (exchange.answer.body.empty()) return Result::ok(nullptr, exchange.status);
        json parsed = json::parse(exchange.answer.body, nullptr, false);
        if (parsed.is_discarded()) return Result::failure(kInvalidAnswer, exchange.status);
        return Result::ok(std::move(parsed), exchange.status);
    }
}

std::optional<ShortRepoName> GitForge::parseShortUrl(const std::string& text) {
    if (text.find("://") != std::string::npos) return std::nullopt;
    const std::size_t colon = text.find(':');
    const std::size_t slash = text.find('/');
    const std::size_t split = colon != std::string::npos && (slash == std::string::npos || colon < slash)
                                  ? colon
                                  : slash;
    if (split == std::string::npos || split == 0) return std::nullopt;

    ShortRepoName name;
    name.alias = text.substr(0, split);
    const bool alias_ok = std::all_of(name.alias.begin(), name.alias.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '_' || c == '.';
    });
    if (!alias_ok) return std::nullopt;

    std::string rest = withoutTrailingSlash(text.substr(split + 1));
    if (rest.size() > 4 && rest.ends_with(".git")) rest.resize(rest.size() - 4);
    const std::size_t last = rest.rfind('/');
    if (last == std::string::npos) return std::nullopt;
    name.owner = rest.substr(0, last);
    name.repo = rest.substr(last + 1);

    // Every segment a plain name: nothing empty, no "." or "..", no
    // blanks or control characters, no second ":".
    std::size_t start = 0;
    while (start <= rest.size()) {
        std::size_t end = rest.find('/', start);
        if (end == std::string::npos) end = rest.size();
        const std::string_view segment(rest.data() + start, end - start);
        if (segment.empty() || segment == "." || segment == "..") return std::nullopt;
        for (unsigned char c : segment)
            if (c <= ' ' || c == ':' || c == 0x7f) return std::nullopt;
        start = end + 1;
    }
    return name;
}

ForgeStatus GitForge::adopt(const ForgeConfig& config, ForgeType expected,
                            std::string_view forge_name) {
    if (config.type != expected) return ForgeStatus::failure(kWrongType + std::string(forge_name));
    config_ = config;
    return ForgeStatus::ok({});
}

GitCredentials GitForge::tokenCredentials(const std::string& user) const {
    if (config_.auth.token.empty()) return {};
    return {user, config_.auth.token};
}

std::string GitForge::cloneUrlFor(const std::string& owner, const std::string& repo) const {
    if (config_.default_protocol == "ssh")
        return "git@" + urlHost(config_.url) + ":" + owner + "/" + repo + ".git";
    return withoutTrailingSlash(config_.url) + "/" + owner + "/" + repo + ".git";
}

bool GitForge::isMergeMethod(const std::string& method) {
    return method == "merge" || method == "squash" || method == "rebase";
}

std::string GitForge::encode(std::string_view text, bool keep_slash) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' ||
            (keep_slash && c == '/')) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    return out;
}

std::string GitForge::base64(std::string_view bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t n = (uint32_t(uint8_t(bytes[i])) << 16) |
                           (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
        for (int shift : {18, 12, 6, 0}) out.push_back(kAlphabet[(n >> shift) & 63]);
    }
    if (const std::size_t left = bytes.size() - i; left > 0) {
        uint32_t n = uint32_t(uint8_t(bytes[i])) << 16;
        if (left == 2) n |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        out.push_back(kAlphabet[(n >> 18) & 63]);
        out.push_back(kAlphabet[(n >> 12) & 63]);
        out.push_back(left == 2 ? kAlphabet[(n >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

GitCredentials GitForge::credentialsFor(const std::string& url) const {
    const std::string scheme = lowerCase(url.substr(0, url.find("://")));
    if (scheme != "https" && scheme != "http") return {};
    const std::string host = urlHost(url);
    if (host.empty() || host != urlHost(config_.url)) return {};
    return gitCredentials();
}

ForgeStatus GitForge::runGitStep(const std::vector<std::string>& args, const std::string& work_dir,
                                 const GitCredentials& credentials,
                                 std::string_view failure) const {
    GitRunOptions options;
    options.work_dir = work_dir;
    options.credentials = credentials;
    const GitRunResult result = runGit(args, options);
    if (!result.started) return ForgeStatus::failure(std::string(failure) + kGitNotRun);
    if (!result.ok()) return ForgeStatus::failure(std::string(failure) + result.failureText());
    return ForgeStatus::ok({});
}

ForgeStatus GitForge::runClone(const std::string& url, const std::string& path,
                               const CloneOptions& options,
                               const ProgressCallback& progress) const {
    if (!isAllowedRemoteUrl(url))
        return ForgeStatus::failure("Refused remote URL: " + stripUrlCredentials(url));
    if (!options.branch.empty() && !isValidBranchName(options.branch))
        return ForgeStatus::failure("Invalid branch name: " + options.branch);
    if (path.empty()) return ForgeStatus::failure("Clone target path is empty");

    report(progress, kCloneStarting);
    std::vector<std::string> args = {"clone"};
    if (options.depth > 0) {
        args.emplace_back("--depth");
        args.push_back(std::to_string(options.depth));
    }
    if (!options.branch.empty()) {
        args.emplace_back("--branch");
        args.push_back(options.branch);
    }
    args.insert(args.end(), {"--", url, path});
    ForgeStatus status = runGitStep(args, {}, credentialsFor(url), "Clone failed: ");
    if (status) report(progress, kCloneDone);
    return status;
}

GitCredentials GitForge::remoteCredentials(const std::string& path) const {
    GitRunOptions options;
    options.work_dir = path;
    const GitRunResult remote = runGit({"remote", "get-url", kRemote}, options);
    if (!remote.ok()) return {};
    std::string url = remote.output;
    while (!url.empty() && std::isspace(static_cast<unsigned char>(url.back()))) url.pop_back();
    return credentialsFor(url);
}

ForgeStatus GitForge::runPull(const std::string& path, const ProgressCallback& progress) const {
    report(progress, kPullStarting);
    // Fast-forward only: a merge would need an author identity and could
    // stop half-way on conflicts, leaving a checkout nobody is watching.
    ForgeStatus status =
        runGitStep({"pull", "--ff-only"}, path, remoteCredentials(path), "Pull failed: ");
    if (status) report(progress, kPullDone);
    return status;
}

ForgeStatus GitForge::runPush(const std::string& path, const ProgressCallback& progress) const {
    report(progress, kPushStarting);
    ForgeStatus status =
        runGitStep({"push", kRemote, "HEAD"}, path, remoteCredentials(path), "Push failed: ");
    if (status) report(progress, kPushDone);
    return status;
}

}  // namespace vostra::git
