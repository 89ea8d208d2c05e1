// The accept thread, the hand-over of connections to client threads and to
// the event-driven reader of slow requests, and the serving of one complete
// request on a client thread.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <cstring>
#include <exception>

#include "common/log.h"
#include "daemon/connection_reader.h"
#include "daemon/request_assembler.h"
#include "daemon/data_daemon.h"
#include "daemon/http_message.h"
#include "daemon/request_context.h"
#include "daemon/tls_relay.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
constexpr int kListenBacklog = 10;
// A client that stops reading must not pin its thread for ever: a send
// without progress for this long fails.
constexpr timeval kSendTimeout{30, 0};

// The listening socket for `bind_address`: IPv6 when the text holds a ":",
// else IPv4, "any" when empty, "0.0.0.0" or not an address. -1 after
// printing why.
int openListener(const std::string& bind_address, int port) {
    const bool ipv6 = bind_address.find(':') != std::string::npos;
    // Close-on-exec throughout: host tools run through the shell must not
    // inherit the server's sockets.
    const int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        kLog.error("Failed to create socket");
        return -1;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Report a connection only once a request's first bytes are there; a
    // silent connection is still accepted after about a second.
    setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &one, sizeof one);

    sockaddr_storage storage{};
    socklen_t length = 0;
    if (ipv6) {
        auto& address = reinterpret_cast<sockaddr_in6&>(storage);
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(static_cast<uint16_t>(port));
        address.sin6_addr = in6addr_any;
        in6_addr parsed{};
        if (inet_pton(AF_INET6, bind_address.c_str(), &parsed) == 1) address.sin6_addr = parsed;
        length = sizeof address;
    } else {
        auto& address = reinterpret_cast<sockaddr_in&>(storage);
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = INADDR_ANY;
        if (!bind_address.empty() && bind_address != "0.0.0.0") {
            // A text that does not convert leaves the address at "any".
            in_addr parsed{};
            if (inet_pton(AF_INET, bind_address.c_str(), &parsed) == 1) address.sin_addr = parsed;
        }
        length = sizeof address;
    }

    if (bind(fd, reinterpret_cast<sockaddr*>(&storage), length) < 0) {
        kLog.error("Failed to bind to port ", port);
        close(fd);
        return -1;
    }
    if (listen(fd, kListenBacklog) < 0) {
        kLog.error("Failed to listen");
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

bool DataDaemon::serveFresh(int fd) {
    RequestAssembler assembler;
    bool peer_closed = false;
    const auto progress = readWithoutWaiting(fd, assembler, peer_closed);
    if (progress == RequestAssembler::Progress::NeedMore && !peer_closed) {
        reader_->adopt(fd, std::move(assembler), std::chrono::steady_clock::now());
        return false;
    }
    if (progress == RequestAssembler::Progress::HeadTooLarge ||
        progress == RequestAssembler::Progress::BadChunking) {
        sendUnreadable(fd, progress);
    } else if (!assembler.empty()) {
        HttpRequest request = assembler.finish(fd);
        serveRequest(request);
    }
    return true;
}

void DataDaemon::refuseBusy(int fd) {
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
    sendError(fd, 503, "Server busy");
    close(fd);
}

template <typename Serve>
void DataDaemon::dispatchRequest(int fd, Serve&& serve) {
    if (active_clients_.fetch_add(1) >= config_.max_connections ||
        !client_threads_.dispatch([this, fd, serve = std::forward<Serve>(serve)]() mutable {
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
            if (serve()) close(fd);
            active_clients_.fetch_sub(1);
        })) {
        active_clients_.fetch_sub(1);
        refuseBusy(fd);
    }
}

void DataDaemon::serveAdopted(HttpRequest&& request) {
    const int fd = request.fd;
    dispatchRequest(fd, [this, request = std::move(request)]() mutable {
        serveRequest(request);
        return true;
    });
}

void DataDaemon::httpServerLoop() {
    const int fd = openListener(config_.bind_address, config_.port);
    if (fd < 0) return;
    // Publish the socket before looking at the flags again: stop() clears the
    // flags before it reads listen_fd_, so one of us always sees the other.
    listen_fd_.store(fd);
    std::thread reading([this] { reader_->run(http_running_); });

    while (running_.load() && http_running_.load()) {
        const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (!running_.load() || !http_running_.load()) break;
            kLog.error("Accept failed");
            // Out of descriptors: give clients a moment to finish instead of spinning.
            if (errno == EMFILE || errno == ENFILE) usleep(10 * 1000);
            continue;
        }
        if (reader_->waiting() >= static_cast<std::size_t>(config_.max_waiting_connections)) {
            refuseBusy(client);
            continue;
        }
        // Most requests are whole when their connection is accepted (the
        // listener waits for the first bytes): a client thread reads and
        // answers them at once, and passes the rest to the reader.
        if (tls_) {
            tls_->adopt(client, [this](int plain) {
                dispatchRequest(plain, [this, plain] { return serveFresh(plain); });
            });
        } else {
            dispatchRequest(client, [this, client] { return serveFresh(client); });
        }
    }

    reading.join();
    const int still_open = listen_fd_.exchange(-1);
    if (still_open >= 0) close(still_open);
}

void DataDaemon::handleClient(int fd) {
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
    // No exception may end a client thread, and through it the process: not
    // even running out of memory while reading a huge request.
    try {
        if (std::optional<HttpRequest> request = readRequest(fd)) serveRequest(*request);
    } catch (const std::exception& error) {
        kLog.error("Request failed: ", error.what());
        sendError(fd, 500, error.what());
    } catch (...) {
        sendError(fd, 500, "Internal error");
    }
}

void DataDaemon::serveRequest(HttpRequest& request) {
    const auto began = std::chrono::steady_clock::now();
    (void)takeLastStatus();
    serveCounted(request);
    request_metrics_.record(request.path, takeLastStatus(), std::chrono::steady_clock::now() - began);
}

void DataDaemon::serveCounted(HttpRequest& request) {
    try {
        currentTenant() = extractTenantFromRequest(request.raw);
        if (!admitRequest(request)) return;
        // HEAD is GET without the body: same route, same status, same length.
        if (request.method == "HEAD") {
            request.method = "GET";
            const HeadOnlyAnswers head_only;
            dispatch(request);
        } else {
            dispatch(request);
        }
    } catch (const std::exception& error) {
        kLog.error("Request ", request.method, " ", request.path, " failed: ", error.what());
        sendError(request.fd, 500, error.what());
    } catch (...) {
        sendError(request.fd, 500, "Internal error");
    }
}

}  // namespace vostra::data
