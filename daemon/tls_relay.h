// HTTPS in front of the plain HTTP server: each accepted connection gets a
// thread that completes the TLS handshake (TLS 1.2 or 1.3, forward-secret
// AEAD ciphers only), then hands the daemon one end of a socket pair and
// carries bytes between it and the encrypted connection until either side
// is done. Everything behind it (reading requests, routing, streaming files
// with sendfile) stays as it is for plain HTTP.
//
// Thread-safe; relay threads keep what they use alive, so the relay may be
// destroyed while connections are still being carried.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace vostra::data {

class TlsRelay {
public:
    // Loads the certificate chain and key (PEM); null with the reason in
    // `error` when they cannot be used.
    static std::unique_ptr<TlsRelay> create(const std::string& cert_file, const std::string& key_file,
                                            int max_connections, std::string& error);
    ~TlsRelay();
    TlsRelay(const TlsRelay&) = delete;
    TlsRelay& operator=(const TlsRelay&) = delete;

    // Takes an accepted socket. `serve` is called on the relay's thread with
    // the plain end once the handshake is done, and owns it from then on.
    // Over max_connections the socket is closed at once.
    void adopt(int fd, std::function<void(int)> serve);

    // The client's address behind `fd`: the peer of a TCP socket, or the
    // client of a plain end a relay handed out (a socket pair has no
    // address of its own); "local" for anything else.
    static std::string clientAddress(int fd);

private:
    struct Shared;
    explicit TlsRelay(std::shared_ptr<Shared> shared);
    std::shared_ptr<Shared> shared_;
};

}  // namespace vostra::data
