#include "tests/support/git_repos.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "git/git_runner.h"

namespace vostra::test {

std::string runGitIn(const std::string& folder, const std::vector<std::string>& args) {
    std::vector<std::string> full = {"-c", "user.name=Test Author",
                                     "-c", "user.email=author@example.test",
                                     "-c", "init.defaultBranch=main"};
    full.insert(full.end(), args.begin(), args.end());
    git::GitRunOptions options;
    options.work_dir = folder;
    options.timeout_seconds = 60;
    git::GitRunResult run = git::runGit(full, options);
    EXPECT_TRUE(run.ok()) << "git " << args.front() << ": " << run.failureText();
    while (!run.output.empty() && run.output.back() == '\n')
        run.output.pop_back();
    return run.output;
}

BareRepo::BareRepo() {
    char pattern[] = "/tmp/vostra-git-XXXXXX";
    root_ = mkdtemp(pattern);
    bare_ = root_ + "/remote.git";
    work_ = root_ + "/pusher";
    runGitIn(root_, {"init", "--bare", "--initial-branch=main", bare_});
    runGitIn(root_, {"clone", url(), work_});
    commit("README.md", "# Test repository\n", "Initial commit");
}

BareRepo::~BareRepo() {
    std::error_code error;
    std::filesystem::remove_all(root_, error);
}

std::string BareRepo::commit(const std::string& path, const std::string& content,
                             const std::string& message, const std::string& branch) {
    const std::string current = runGitIn(work_, {"symbolic-ref", "--short", "HEAD"});
    if (current != branch) {
        git::GitRunOptions options;
        options.work_dir = work_;
        const bool exists =
            git::runGit({"rev-parse", "--verify", "--quiet", "refs/heads/" + branch}, options).ok();
        if (exists)
            runGitIn(work_, {"checkout", branch});
        else
            runGitIn(work_, {"checkout", "-b", branch});
    }
    const std::filesystem::path file = std::filesystem::path(work_) / path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    runGitIn(work_, {"add", "--", path});
    runGitIn(work_, {"commit", "-q", "-m", message});
    runGitIn(work_, {"push", "-q", "origin", branch});
    return runGitIn(work_, {"rev-parse", "HEAD"});
}

std::string BareRepo::git(const std::vector<std::string>& args, bool bare) const {
    return runGitIn(bare ? bare_ : work_, args);
}

PrivateGitServer::PrivateGitServer(const std::string& folder, const std::string& user,
                                   const std::string& password)
    : folder_(folder) {
    int out[2];
    if (pipe(out) != 0) return;
    const std::string script = std::string(VOSTRA_SOURCE_DIR) + "/tests/tools/git_http_server.py";
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execl("/usr/bin/python3", "python3", script.c_str(), folder.c_str(), user.c_str(),
              password.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    FILE* lines = fdopen(out[0], "r");
    if (lines && std::fscanf(lines, "%d", &port_) != 1) port_ = 0;
    if (lines) std::fclose(lines);
}

PrivateGitServer::~PrivateGitServer() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::string PrivateGitServer::url(const std::string& name) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

std::string PrivateGitServer::authorizationLog() const {
    std::ifstream in(folder_ + "/auth.log");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace vostra::test
