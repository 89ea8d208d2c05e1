#include "daemon/connection_reader.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/log.h"
#include "daemon/request_assembler.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
// The reading rule: at most this much per recv, each piece cut at its NUL.
constexpr std::size_t kRecvChunk = 8191;
constexpr int kMaxEvents = 256;
constexpr int kReadsPerWake = 64;
constexpr int kWaitMs = 250;
// A client that stops reading must not pin its thread for ever: a send
// with no progress for this long fails.
constexpr timeval kSendTimeout{30, 0};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

using Clock = std::chrono::steady_clock;

void setBlocking(int fd, bool blocking) {
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags >= 0) fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

}  // namespace

struct ConnectionReader::Connection {
    RequestAssembler assembler;
    Clock::time_point opened;
    Clock::time_point last_read;
};

ConnectionReader::ConnectionReader(int listen_fd, Limits limits, Handoff handoff)
    : listen_fd_(listen_fd), limits_(limits), handoff_(std::move(handoff)) {
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd_ < 0) return;
    setBlocking(listen_fd_, false);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listen_fd_;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &event) != 0) {
        close(epoll_fd_);
        epoll_fd_ = -1;
    }
}

ConnectionReader::~ConnectionReader() {
    for (auto& [fd, connection] : connections_) close(fd);
    if (epoll_fd_ >= 0) close(epoll_fd_);
}

void ConnectionReader::run(const std::atomic<bool>& running) {
    epoll_event events[kMaxEvents];
    last_sweep_ = Clock::now();
    while (running.load()) {
        const int count = epoll_wait(epoll_fd_, events, kMaxEvents, kWaitMs);
        if (count < 0 && errno != EINTR) {
            kLog.error("Accept failed");
            usleep(10 * 1000);
        }
        if (!running.load()) break;
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listen_fd_) {
                acceptAll();
                continue;
            }
            auto it = connections_.find(fd);
            if (it != connections_.end()) readFrom(fd, *it->second);
        }
        const auto now = Clock::now();
        if (now - last_sweep_ >= std::chrono::milliseconds(kWaitMs)) sweep(now);
    }
    for (auto& [fd, connection] : connections_) close(fd);
    connections_.clear();
    waiting_.store(0);
}

void ConnectionReader::acceptAll() {
    for (;;) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                kLog.error("Accept failed");
                // Out of descriptors: give clients a moment to finish
                // instead of spinning on a listening socket that stays ready.
                if (errno == EMFILE || errno == ENFILE) usleep(10 * 1000);
            }
            return;
        }
        if (connections_.size() >= limits_.max_waiting) {
            setBlocking(fd, true);
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
            sendError(fd, 503, "Server busy");
            close(fd);
            continue;
        }
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.fd = fd;
        if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            close(fd);
            continue;
        }
        auto connection = std::make_unique<Connection>();
        connection->opened = connection->last_read = Clock::now();
        connections_[fd] = std::move(connection);
        waiting_.store(connections_.size());
    }
}

void ConnectionReader::readFrom(int fd, Connection& connection) {
    char buffer[kRecvChunk + 1];
    // A bounded number of reads per wake-up, so one fast upload cannot keep
    // every other connection waiting; the level-triggered poll comes back.
    for (int reads = 0; reads < kReadsPerWake; ++reads) {
        const ssize_t received = recv(fd, buffer, kRecvChunk, 0);
        if (received < 0 && errno == EINTR) continue;
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (received <= 0) {
            // The peer is done sending (or failed): what arrived is the request.
            finish(fd);
            return;
        }
        connection.last_read = Clock::now();
        buffer[received] = '\0';
        const auto progress = connection.assembler.feed(std::string_view(buffer, std::strlen(buffer)));
        if (connection.assembler.takeContinue())
            (void)send(fd, kContinue.data(), kContinue.size(), MSG_NOSIGNAL);
        switch (progress) {
            case RequestAssembler::Progress::NeedMore:
                break;
            case RequestAssembler::Progress::Complete:
                finish(fd);
                return;
            case RequestAssembler::Progress::HeadTooLarge:
                finish(fd, 431);
                return;
            case RequestAssembler::Progress::BadChunking:
                finish(fd, 400);
                return;
        }
    }
}

void ConnectionReader::sweep(Clock::time_point now) {
    last_sweep_ = now;
    std::vector<int> due;
    for (const auto& [fd, connection] : connections_) {
        if (now - connection->last_read >= limits_.stall ||
            (!connection->assembler.headDone() && now - connection->opened >= limits_.head_deadline))
            due.push_back(fd);
    }
    for (int fd : due) finish(fd);
}

void ConnectionReader::finish(int fd, int status) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) return;
    std::unique_ptr<Connection> connection = std::move(it->second);
    connections_.erase(it);
    waiting_.store(connections_.size());
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
    setBlocking(fd, true);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);

    if (connection->assembler.empty()) {
        // A connection that sends nothing gets no answer.
        close(fd);
        return;
    }
    if (status == 431) {
        sendError(fd, 431, "Request header fields too large");
        close(fd);
        return;
    }
    if (status != 0) {
        sendError(fd, status, "Malformed chunked body");
        close(fd);
        return;
    }
    handoff_(connection->assembler.finish(fd));
}

}  // namespace vostra::data
