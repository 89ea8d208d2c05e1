// Local git repositories for tests: a bare "remote" in a temporary folder
// and a working clone of it through which the test commits and pushes, so
// that the code under test can clone it through a file:// URL. Removed in
// the destructor. Not thread-safe; one per test.
#pragma once

#include <string>
#include <vector>

namespace vostra::test {

class BareRepo {
public:
    // A bare repository whose default branch is "main", with one commit
    // ("README.md") already pushed.
    BareRepo();
    ~BareRepo();
    BareRepo(const BareRepo&) = delete;
    BareRepo& operator=(const BareRepo&) = delete;

    std::string url() const { return "file://" + bare_; }
    const std::string& barePath() const { return bare_; }
    const std::string& folder() const { return root_; }

    // Writes `path` in the pusher's clone on `branch` (created from main
    // when new), commits it with `message` and pushes; the new commit's id.
    std::string commit(const std::string& path, const std::string& content,
                       const std::string& message, const std::string& branch = "main");
    // `git <args>` in the pusher's clone (the bare one with `bare`); its
    // output, trailing newline removed. Fails the test when git fails.
    std::string git(const std::vector<std::string>& args, bool bare = false) const;

private:
    std::string root_;
    std::string bare_;
    std::string work_;
};

// A private git server over HTTP on a free loopback port, serving the bare
// repositories of one folder only to a client presenting `user` and
// `password` (tests/tools/git_http_server.py). Stopped in the destructor.
class PrivateGitServer {
public:
    PrivateGitServer(const std::string& folder, const std::string& user,
                     const std::string& password);
    ~PrivateGitServer();
    PrivateGitServer(const PrivateGitServer&) = delete;
    PrivateGitServer& operator=(const PrivateGitServer&) = delete;

    bool running() const { return port_ > 0; }
    // The URL of bare repository `name` (a folder name under `folder`).
    std::string url(const std::string& name) const;
    // Every Authorization header the server received, one per line.
    std::string authorizationLog() const;

private:
    std::string folder_;
    int pid_ = -1;
    int port_ = 0;
};

// `git <args>` in `folder` with the test identity; the output, trailing
// newline removed. Fails the test when git fails.
std::string runGitIn(const std::string& folder, const std::vector<std::string>& args);

}  // namespace vostra::test
