#include "tests/support/in_process_daemon.h"

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "tests/support/daemon_process.h"

namespace vostra::test {

InProcessDaemon::InProcessDaemon(const std::function<void(data::DataDaemonConfig&)>& adjust)
    : dir_(makeTempDir("vostra-in-process")), daemon_(std::make_unique<data::DataDaemon>()) {
    data::DataDaemonConfig config;
    config.storage_path = dir_ + "/storage";
    config.vector_path = dir_ + "/vectors";
    config.git_path = dir_ + "/git";
    config.science_keys_file = dir_ + "/science/science_api_keys.json";
    config.science_providers_file = dir_ + "/science/science_providers.json";
    if (adjust) adjust(config);
    initialized_ = daemon_->initialize(config);
}

InProcessDaemon::~InProcessDaemon() {
    daemon_.reset();
    removeTree(dir_);
}

HttpResponse InProcessDaemon::sendRaw(const std::string& bytes) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return {};
    // The client side runs beside the handler, so neither a large request
    // nor a large answer can fill the pair's buffers and stall the other.
    std::string answer;
    std::thread client([&] {
        sendAll(fds[1], bytes);
        shutdown(fds[1], SHUT_WR);
        answer = readAll(fds[1]);
    });
    daemon_->handleClient(fds[0]);
    close(fds[0]);
    client.join();
    close(fds[1]);
    return parseResponse(answer);
}

HttpResponse InProcessDaemon::call(const std::string& method, const std::string& path,
                                   const std::string& body,
                                   const std::vector<std::string>& headers) {
    std::string raw = method + " " + path + " HTTP/1.1\r\nHost: test\r\n";
    for (const std::string& header : headers) raw += header + "\r\n";
    raw += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    return sendRaw(raw);
}

}  // namespace vostra::test
