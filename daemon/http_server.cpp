// The accept thread and the per-connection threads of the HTTP server.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "common/log.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/request_context.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr int kListenBacklog = 10;
// A client that stops reading must not pin its thread for ever.
constexpr timeval kSendTimeout{30, 0};

}  // namespace

void DataDaemon::httpServerLoop() {
    // Close-on-exec throughout: host tools run through the shell must not
    // inherit the server's sockets.
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        kLog.error("Failed to create socket");
        return;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Wake the accept thread only once a request's first bytes are there, so
    // the client thread finds data at its first recv instead of sleeping on it.
    // A silent connection is still accepted after about a second.
    int defer = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &defer, sizeof defer);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(config_.port));
    address.sin_addr.s_addr = INADDR_ANY;
    if (!config_.bind_address.empty() && config_.bind_address != "0.0.0.0") {
        // A text that does not convert leaves the address at "any".
        in_addr parsed{};
        if (inet_pton(AF_INET, config_.bind_address.c_str(), &parsed) == 1) address.sin_addr = parsed;
    }

    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        kLog.error("Failed to bind to port ", config_.port);
        close(fd);
        return;
    }
    if (listen(fd, kListenBacklog) < 0) {
        kLog.error("Failed to listen");
        close(fd);
        return;
    }
    // Publish the socket before looking at the flags again: stop() clears the
    // flags before it reads listen_fd_, so one of us always sees the other.
    listen_fd_.store(fd);

    while (running_.load() && http_running_.load()) {
        int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (!running_.load() || !http_running_.load()) break;
            kLog.error("Accept failed");
            // Out of descriptors: give clients a moment to finish instead of spinning.
            if (errno == EMFILE || errno == ENFILE) usleep(10 * 1000);
            continue;
        }
        if (active_clients_.fetch_add(1) >= config_.max_connections ||
            !client_threads_.dispatch(client)) {
            active_clients_.fetch_sub(1);
            sendError(client, 503, "Server busy");
            close(client);
        }
    }

    const int still_open = listen_fd_.exchange(-1);
    if (still_open >= 0) close(still_open);
}

void DataDaemon::serveConnection(int fd) {
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
    handleClient(fd);
    close(fd);
    active_clients_.fetch_sub(1);
}

void DataDaemon::handleClient(int fd) {
    HttpRequest request;
    request.fd = fd;
    // No exception may end a client thread, and through it the process: not
    // even running out of memory while reading a huge request.
    try {
        request.raw = readRequest(fd);
        if (request.raw.empty()) return;
        parseRequest(request.raw, request.method, request.path, request.body);
        currentTenant() = extractTenantFromRequest(request.raw);
        dispatch(request);
    } catch (const std::exception& error) {
        kLog.error("Request ", request.method, " ", request.path, " failed: ", error.what());
        sendError(fd, 500, error.what());
    } catch (...) {
        sendError(fd, 500, "Internal error");
    }
}

}  // namespace vostra::data
