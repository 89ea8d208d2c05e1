#include "daemon/tls_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "common/log.h"

namespace vostra::data {
namespace {

constexpr Log kLog("[TLS] ");
using Clock = std::chrono::steady_clock;
constexpr auto kHandshakeTimeout = std::chrono::seconds(10);
// As the plain server: 30 s without progress either way ends a connection.
constexpr auto kIdleTimeout = std::chrono::seconds(30);
constexpr std::size_t kChunk = 16384;

std::string opensslError() {
    const unsigned long code = ERR_get_error();
    if (code == 0) return "unknown error";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return text;
}

std::string addressOf(int fd) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return "";
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in&>(storage).sin_addr, text, sizeof text);
    else if (storage.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6&>(storage).sin6_addr, text, sizeof text);
    return text;
}

// Plain ends handed out, with the address of the client behind each; a
// number is tagged with its relay so that a reused descriptor is never
// forgotten by the relay that had it before.
struct Peers {
    std::mutex mutex;
    std::map<int, std::pair<uint64_t, std::string>> by_fd;
    uint64_t next_tag = 1;
};
Peers& peers() {
    static Peers* instance = new Peers;  // outlives detached relay threads
    return *instance;
}

void setNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Waits for `events` on `fd` until `deadline`; false on time-out or error.
bool waitFor(int fd, short events, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd p{fd, events, 0};
    return poll(&p, 1, static_cast<int>(left)) > 0;
}

}  // namespace

struct TlsRelay::Shared {
    SSL_CTX* context = nullptr;
    std::atomic<int> active{0};
    int max_connections = 0;
    ~Shared() {
        if (context) SSL_CTX_free(context);
    }
};

TlsRelay::TlsRelay(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
TlsRelay::~TlsRelay() = default;

std::unique_ptr<TlsRelay> TlsRelay::create(const std::string& cert_file, const std::string& key_file,
                                           int max_connections, std::string& error) {
    auto shared = std::make_shared<Shared>();
    shared->max_connections = max_connections;
    shared->context = SSL_CTX_new(TLS_server_method());
    SSL_CTX* context = shared->context;
    if (!context) {
        error = "Cannot create a TLS context: " + opensslError();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                     SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_TICKET);
    // TLS 1.2: forward-secret AEAD suites only; TLS 1.3 suites are all such.
    SSL_CTX_set_cipher_list(context, "ECDHE+AESGCM:ECDHE+CHACHA20:!aNULL:!SHA1");
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_CTX_use_certificate_chain_file(context, cert_file.c_str()) != 1) {
        error = "Cannot load the TLS certificate " + cert_file + ": " + opensslError();
        return nullptr;
    }
    if (SSL_CTX_use_PrivateKey_file(context, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
        error = "Cannot load the TLS key " + key_file + ": " + opensslError();
        return nullptr;
    }
    if (SSL_CTX_check_private_key(context) != 1) {
        error = "The TLS key " + key_file + " does not match the certificate " + cert_file;
        return nullptr;
    }
    return std::unique_ptr<TlsRelay>(new TlsRelay(std::move(shared)));
}

std::string TlsRelay::clientAddress(int fd) {
    if (std::string address = addressOf(fd); !address.empty()) return address;
    Peers& all = peers();
    std::lock_guard lock(all.mutex);
    auto found = all.by_fd.find(fd);
    return found == all.by_fd.end() ? "local" : found->second.second;
}

void TlsRelay::adopt(int fd, std::function<void(int)> serve) {
    std::shared_ptr<Shared> shared = shared_;
    if (shared->active.fetch_add(1) >= shared->max_connections) {
        shared->active.fetch_sub(1);
        close(fd);
        return;
    }
    std::thread([shared, fd, serve = std::move(serve)] {
        SSL* ssl = SSL_new(shared->context);
        int plain[2] = {-1, -1};
        uint64_t tag = 0;
        auto finish = [&] {
            if (ssl) SSL_free(ssl);
            close(fd);
            if (plain[0] >= 0) close(plain[0]);
            if (tag) {
                Peers& all = peers();
                std::lock_guard lock(all.mutex);
                auto found = all.by_fd.find(plain[1]);
                if (found != all.by_fd.end() && found->second.first == tag) all.by_fd.erase(found);
            }
            shared->active.fetch_sub(1);
        };
        setNonBlocking(fd);
        if (!ssl || SSL_set_fd(ssl, fd) != 1) return finish();

        const Clock::time_point handshake_deadline = Clock::now() + kHandshakeTimeout;
        for (;;) {
            const int done = SSL_accept(ssl);
            if (done == 1) break;
            const int reason = SSL_get_error(ssl, done);
            const short wanted = reason == SSL_ERROR_WANT_READ    ? POLLIN
                                 : reason == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                                  : 0;
            if (!wanted || !waitFor(fd, wanted, handshake_deadline)) {
                ERR_clear_error();
                return finish();
            }
        }
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, plain) != 0) return finish();
        {
            Peers& all = peers();
            std::lock_guard lock(all.mutex);
            tag = all.next_tag++;
            all.by_fd[plain[1]] = {tag, addressOf(fd)};
        }
        setNonBlocking(plain[0]);
        serve(plain[1]);  // the daemon owns and closes it from here

        std::string to_plain, to_client;
        bool client_done = false, daemon_done = false, tls_wants_write = false;
        Clock::time_point last_progress = Clock::now();
        char buffer[kChunk];
        while (!(daemon_done && to_client.empty())) {
            bool progressed = false;
            bool tls_wants_read = false;
            tls_wants_write = false;
            if (!client_done && to_plain.size() < 4 * kChunk) {
                const int n = SSL_read(ssl, buffer, sizeof buffer);
                if (n > 0) {
                    to_plain.append(buffer, static_cast<std::size_t>(n));
                    progressed = true;
                } else {
                    const int reason = SSL_get_error(ssl, n);
                    if (reason == SSL_ERROR_WANT_READ) tls_wants_read = true;
                    else if (reason == SSL_ERROR_WANT_WRITE) tls_wants_write = true;
                    else client_done = true;
                }
            }
            if (!to_plain.empty()) {
                const ssize_t n = send(plain[0], to_plain.data(), to_plain.size(), MSG_NOSIGNAL);
                if (n > 0) {
                    to_plain.erase(0, static_cast<std::size_t>(n));
                    progressed = true;
                } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                    to_plain.clear();
                }
            }
            if (client_done && to_plain.empty()) shutdown(plain[0], SHUT_WR);
            if (!daemon_done && to_client.size() < 4 * kChunk) {
                const ssize_t n = recv(plain[0], buffer, sizeof buffer, 0);
                if (n > 0) {
                    to_client.append(buffer, static_cast<std::size_t>(n));
                    progressed = true;
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    daemon_done = true;
                }
            }
            if (!to_client.empty()) {
                const int n = SSL_write(ssl, to_client.data(), static_cast<int>(to_client.size()));
                if (n > 0) {
                    to_client.erase(0, static_cast<std::size_t>(n));
                    progressed = true;
                } else {
                    const int reason = SSL_get_error(ssl, n);
                    if (reason == SSL_ERROR_WANT_WRITE) tls_wants_write = true;
                    else if (reason == SSL_ERROR_WANT_READ) tls_wants_read = true;
                    else break;  // the client is gone
                }
            }
            if (progressed) {
                last_progress = Clock::now();
                continue;
            }
            if (Clock::now() - last_progress > kIdleTimeout) break;
            pollfd fds[2] = {{fd, 0, 0}, {plain[0], 0, 0}};
            if (tls_wants_read) fds[0].events |= POLLIN;
            if (tls_wants_write) fds[0].events |= POLLOUT;
            if (!to_plain.empty()) fds[1].events |= POLLOUT;
            if (!daemon_done && to_client.size() < 4 * kChunk) fds[1].events |= POLLIN;
            poll(fds, 2, 1000);
        }
        if (daemon_done && to_client.empty()) SSL_shutdown(ssl);
        ERR_clear_error();
        finish();
    }).detach();
}

}  // namespace vostra::data
