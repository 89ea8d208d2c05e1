#include "git/git_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

extern char** environ;

namespace vostra::git {
namespace {

constexpr const char* kExecuteFailed = "Failed to execute command";

// The only text the shell sees: constant, the values come from the child's
// environment. Git asks with "get"; "store" and "erase" must stay silent.
constexpr const char* kCredentialHelper =
    "credential.helper=!f() { test \"$1\" = get && "
    "printf 'username=%s\\npassword=%s\\n' \"$VOSTRA_GIT_USERNAME\" \"$VOSTRA_GIT_PASSWORD\"; }; f";

// Variables that would make a child behave unlike the command we built:
// ours are set afresh, the others would redirect git to another
// repository or configuration, or ask a human.
bool inheritedVariable(std::string_view entry) {
    static constexpr std::string_view kDropped[] = {
        "GIT_DIR=",
        "GIT_WORK_TREE=",
        "GIT_INDEX_FILE=",
        "GIT_ASKPASS=",
        "SSH_ASKPASS=",
        "GIT_TERMINAL_PROMPT=",
        "VOSTRA_GIT_USERNAME=",
        "VOSTRA_GIT_PASSWORD=",
        "GIT_CONFIG_PARAMETERS=",
        "GIT_CONFIG_COUNT=",
    };
    for (std::string_view dropped : kDropped)
        if (entry.starts_with(dropped)) return false;
    return true;
}

// Closes the pipe ends and reaps the child whatever way we leave.
struct Child {
    pid_t pid = -1;
    int out = -1;
    ~Child() {
        if (out >= 0) close(out);
        if (pid > 0) {
            kill(-pid, SIGKILL);
            int status = 0;
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }
};

void appendPercentDecoded(std::string_view text, std::string& out) {
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
            hex(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
}

std::string lowerCase(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lowered;
}

// Where the authority of a "scheme://authority/..." URL lies; npos when the
// URL has no scheme.
struct Authority {
    std::size_t begin = std::string::npos;
    std::size_t end = std::string::npos;
};

Authority authorityOf(const std::string& url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string::npos) return {};
    const std::size_t begin = scheme + 3;
    std::size_t end = url.find_first_of("/?#", begin);
    if (end == std::string::npos) end = url.size();
    return {begin, end};
}

}  // namespace

std::string GitRunResult::failureText() const {
    if (!started) return kExecuteFailed;
    if (timed_out) return "git timed out";
    std::string text = output;
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.pop_back();
    if (text.empty()) text = "git exited with status " + std::to_string(exit_code);
    return text;
}

GitRunResult runGit(const std::vector<std::string>& args, const GitRunOptions& options) {
    GitRunResult result;

    std::vector<std::string> argv_text = {"git", "-c", "core.askPass=", "-c",
                                          "protocol.ext.allow=never"};
    if (!options.credentials.empty()) {
        // An empty helper first clears any configured one.
        argv_text.insert(argv_text.end(), {"-c", "credential.helper=", "-c", kCredentialHelper});
    }
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argv_text)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    std::vector<std::string> env_text;
    for (char** entry = environ; entry && *entry; ++entry)
        if (inheritedVariable(*entry)) env_text.emplace_back(*entry);
    env_text.emplace_back("GIT_TERMINAL_PROMPT=0");
    // ssh must not stop to ask about a new host key or a passphrase.
    env_text.emplace_back("GIT_SSH_COMMAND=ssh -o BatchMode=yes");
    if (!options.credentials.empty()) {
        env_text.push_back("VOSTRA_GIT_USERNAME=" + options.credentials.username);
        env_text.push_back("VOSTRA_GIT_PASSWORD=" + options.credentials.password);
    }
    std::vector<char*> envp;
    for (std::string& entry : env_text)
        envp.push_back(entry.data());
    envp.push_back(nullptr);

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) return result;
    Child child;
    child.out = pipe_fds[0];

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDERR_FILENO);
    if (!options.work_dir.empty())
        posix_spawn_file_actions_addchdir_np(&actions, options.work_dir.c_str());
    // A group of its own, so that the time limit also ends git's helpers
    // (ssh, remote-https, the credential helper's shell).
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, "git", &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(pipe_fds[1]);
    if (spawned != 0) return result;
    child.pid = pid;

    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::seconds(std::max(1, options.timeout_seconds));
    std::array<char, 65536> buffer;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timed_out = true;
            break;
        }
        pollfd poll_fd{child.out, POLLIN, 0};
        const int ready =
            poll(&poll_fd, 1, static_cast<int>(std::min<int64_t>(left.count(), 1000)));
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        const ssize_t got = read(child.out, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        const std::size_t room =
            options.max_output_bytes - std::min(options.max_output_bytes, result.output.size());
        result.output.append(buffer.data(), std::min<std::size_t>(room, got));
        if (static_cast<std::size_t>(got) > room) result.truncated = true;
    }
    if (result.timed_out) {
        kill(-pid, SIGKILL);
    }
    int status = 0;
    pid_t waited;
    while ((waited = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    child.pid = -1;
    // Helpers git left behind in its group (a hung ssh) go with it.
    kill(-pid, SIGKILL);
    result.started = true;
    if (waited == pid && WIFEXITED(status)) {
        result.exit_code = WEXITSTATUS(status);
        // posix_spawnp reports a missing program as exit status 127.
        if (result.exit_code == 127 && result.output.empty()) result.started = false;
    }
    if (result.timed_out) result.exit_code = -1;
    return result;
}

std::string stripUrlCredentials(const std::string& url) {
    const Authority authority = authorityOf(url);
    if (authority.begin == std::string::npos) return url;
    const std::size_t at = url.rfind('@', authority.end - 1);
    if (at == std::string::npos || at < authority.begin) return url;
    return url.substr(0, authority.begin) + url.substr(at + 1);
}

GitCredentials urlCredentials(const std::string& url) {
    GitCredentials credentials;
    const Authority authority = authorityOf(url);
    if (authority.begin == std::string::npos) return credentials;
    const std::size_t at = url.rfind('@', authority.end - 1);
    if (at == std::string::npos || at < authority.begin) return credentials;
    const std::string_view user_info(url.data() + authority.begin, at - authority.begin);
    const std::size_t colon = user_info.find(':');
    appendPercentDecoded(user_info.substr(0, colon), credentials.username);
    if (colon != std::string_view::npos)
        appendPercentDecoded(user_info.substr(colon + 1), credentials.password);
    return credentials;
}

bool isValidBranchName(const std::string& name) {
    if (name.empty() || name == "@" || name.size() > 255) return false;
    if (name.front() == '-' || name.front() == '/' || name.front() == '.') return false;
    if (name.back() == '/' || name.back() == '.' || name.ends_with(".lock")) return false;
    if (name.find("..") != std::string::npos || name.find("@{") != std::string::npos ||
        name.find("//") != std::string::npos || name.find("/.") != std::string::npos ||
        name.find(".lock/") != std::string::npos)
        return false;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return false;
        if (std::strchr(" ~^:?*[\\", c) != nullptr) return false;
    }
    return true;
}

bool isAllowedRemoteUrl(const std::string& url) {
    if (url.empty() || url.front() == '-') return false;
    for (const char c : url)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
    static constexpr std::string_view kSchemes[] = {"https://", "http://", "ssh://", "git://",
                                                    "file://"};
    for (std::string_view scheme : kSchemes)
        if (url.starts_with(scheme)) return url.size() > scheme.size();
    if (url.find("::") != std::string::npos) return false;
    // "user@host:path": git's scp form, as long as no "/" comes before the ":"
    // (that would be a local path instead).
    const std::size_t colon = url.find(':');
    const std::size_t slash = url.find('/');
    return colon != std::string::npos && colon > 0 && (slash == std::string::npos || slash > colon);
}

std::string urlHost(const std::string& url) {
    std::string_view host;
    const Authority authority = authorityOf(url);
    if (authority.begin != std::string::npos) {
        if (url.starts_with("file://")) return {};
        host = std::string_view(url).substr(authority.begin, authority.end - authority.begin);
        const std::size_t at = host.rfind('@');
        if (at != std::string_view::npos) host.remove_prefix(at + 1);
    } else {
        const std::size_t colon = url.find(':');
        if (colon == std::string::npos || !isAllowedRemoteUrl(url)) return {};
        host = std::string_view(url).substr(0, colon);
        const std::size_t at = host.rfind('@');
        if (at != std::string_view::npos) host.remove_prefix(at + 1);
        return lowerCase(host);
    }
    if (host.starts_with('[')) {
        const std::size_t close = host.find(']');
        host = host.substr(1, close == std::string_view::npos ? host.size() - 1 : close - 1);
    } else if (const std::size_t colon = host.rfind(':'); colon != std::string_view::npos) {
        host = host.substr(0, colon);
    }
    return lowerCase(host);
}

}  // namespace vostra::git
