// Running the `git` tool: one command, its argument list handed to git as
// it stands (no shell ever sees a value), in a working folder, under a time
// limit, with the output of stdout and stderr collected together. Forge
// clients and the repository storage run every git command through here.
//
// Credentials never travel in a URL or a stored configuration: a command
// given `GitCredentials` answers git's username and password questions
// through a credential helper that reads them from the child's environment,
// so the token is seen by git alone and written nowhere. Prompts on the
// terminal are off, so a repository that wants credentials it was not given
// fails at once instead of waiting for a keyboard.
//
// Stateless; thread-safe.
#pragma once

#include <string>
#include <vector>

namespace vostra::git {

struct GitCredentials {
    std::string username;
    std::string password;  // a token, for forges; never logged

    bool empty() const { return username.empty() && password.empty(); }
};

struct GitRunOptions {
    // The folder the command runs in; empty for the daemon's own.
    std::string work_dir;
    int timeout_seconds = 300;
    GitCredentials credentials;
    // Output beyond this many bytes is read and dropped, and `truncated` set.
    std::size_t max_output_bytes = 64u << 20;
};

struct GitRunResult {
    bool started = false;    // false when git could not be run at all
    bool timed_out = false;  // killed at the time limit
    bool truncated = false;  // output longer than max_output_bytes
    int exit_code = -1;      // the exit status, or -1 when killed or not started
    std::string output;      // stdout and stderr, interleaved as written

    bool ok() const { return started && !timed_out && exit_code == 0; }
    // The output, or why there is none ("Failed to execute command", the
    // time-out), for error messages; never holds a credential.
    std::string failureText() const;
};

// Runs `git <args...>`. The child has its own process group, killed whole
// at the time limit; standard input is /dev/null.
GitRunResult runGit(const std::vector<std::string>& args, const GitRunOptions& options = {});

// `url` without any "user[:password]@" part, for storing and answering.
std::string stripUrlCredentials(const std::string& url);

// The "user[:password]@" part of `url` as credentials (percent-decoded);
// empty when the URL carries none.
GitCredentials urlCredentials(const std::string& url);

// Whether git would accept `name` as a branch name (the rules of
// check-ref-format), and it cannot be mistaken for an option. Refuses
// blanks, control characters, "~^:?*[\", "..", "@{", a leading "-", "/"
// or ".", and a trailing "/", "." or ".lock".
bool isValidBranchName(const std::string& name);

// Whether `url` is one git may fetch from here: "https://", "http://",
// "ssh://", "git://" or "file://", or the "user@host:path" form. A URL
// that could pass as an option (leading "-") or that names a transport
// running commands ("ext::") is refused.
bool isAllowedRemoteUrl(const std::string& url);

// The host name of `url` (lower-cased, without user, port or brackets);
// empty for "file://" and when there is none.
std::string urlHost(const std::string& url);

}  // namespace vostra::git
