#include "daemon/connection_reader.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"

namespace vostra::data {
namespace {

constexpr vostra::Log kLog("[DataDaemon] ");
// The reading rule: at most this much per recv, each piece cut at its NUL.
constexpr std::size_t kRecvChunk = 8191;
constexpr int kMaxEvents = 256;
constexpr int kWaitMs = 250;
// A bounded number of reads per wake-up, so one fast upload cannot keep
// every other connection waiting; the level-triggered poll comes back.
constexpr int kReadsPerWake = 64;
constexpr timeval kSendTimeout{30, 0};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

using Clock = std::chrono::steady_clock;

enum class Read { Progress, Drained, Closed };

// One non-blocking read into `assembler`, answering "Expect: 100-continue".
Read readOnce(int fd, RequestAssembler& assembler, RequestAssembler::Progress& progress) {
    char buffer[kRecvChunk + 1];
    ssize_t received;
    do {
        received = recv(fd, buffer, kRecvChunk, MSG_DONTWAIT);
    } while (received < 0 && errno == EINTR);
    if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Read::Drained;
    if (received <= 0) return Read::Closed;
    buffer[received] = '\0';
    progress = assembler.feed(std::string_view(buffer, std::strlen(buffer)));
    if (assembler.takeContinue()) (void)send(fd, kContinue.data(), kContinue.size(), MSG_NOSIGNAL);
    return Read::Progress;
}

}  // namespace

RequestAssembler::Progress readWithoutWaiting(int fd, RequestAssembler& assembler,
                                              bool& peer_closed) {
    RequestAssembler::Progress progress = RequestAssembler::Progress::NeedMore;
    peer_closed = false;
    while (progress == RequestAssembler::Progress::NeedMore) {
        const Read read = readOnce(fd, assembler, progress);
        if (read == Read::Drained) break;
        if (read == Read::Closed) {
            peer_closed = true;
            break;
        }
    }
    return progress;
}

ConnectionReader::ConnectionReader(Limits limits, Handoff handoff)
    : limits_(limits), handoff_(std::move(handoff)) {
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_fd_ < 0 || wake_fd_ < 0) return;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wake_fd_;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &event) != 0) {
        close(epoll_fd_);
        epoll_fd_ = -1;
    }
}

ConnectionReader::~ConnectionReader() {
    for (auto& [fd, connection] : connections_) close(fd);
    for (auto& [fd, connection] : queue_) close(fd);
    if (epoll_fd_ >= 0) close(epoll_fd_);
    if (wake_fd_ >= 0) close(wake_fd_);
}

void ConnectionReader::adopt(int fd, RequestAssembler&& partial, Clock::time_point opened) {
    auto connection = std::make_unique<Connection>();
    connection->assembler = std::move(partial);
    connection->opened = opened;
    connection->last_read = Clock::now();
    {
        std::lock_guard lock(queue_mutex_);
        if (!serving_) {
            close(fd);
            return;
        }
        queue_.emplace_back(fd, std::move(connection));
    }
    waiting_.fetch_add(1);
    const uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof one);
}

bool ConnectionReader::serving() const {
    std::lock_guard lock(queue_mutex_);
    return serving_;
}

void ConnectionReader::takeAdopted() {
    uint64_t count;
    (void)!read(wake_fd_, &count, sizeof count);
    std::vector<std::pair<int, std::unique_ptr<Connection>>> adopted;
    {
        std::lock_guard lock(queue_mutex_);
        adopted.swap(queue_);
    }
    for (auto& [fd, connection] : adopted) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.fd = fd;
        if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            close(fd);
            waiting_.fetch_sub(1);
            continue;
        }
        connections_[fd] = std::move(connection);
    }
}

void ConnectionReader::run(const std::atomic<bool>& running) {
    if (!ready()) return;
    {
        std::lock_guard lock(queue_mutex_);
        serving_ = true;
    }
    epoll_event events[kMaxEvents];
    last_sweep_ = Clock::now();
    while (running.load()) {
        const int count = epoll_wait(epoll_fd_, events, kMaxEvents, kWaitMs);
        if (count < 0 && errno != EINTR) {
            kLog.error("Request reader failed: ", std::strerror(errno));
            usleep(10 * 1000);
        }
        if (!running.load()) break;
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == wake_fd_) {
                takeAdopted();
                continue;
            }
            auto it = connections_.find(fd);
            if (it != connections_.end()) readFrom(fd, *it->second);
        }
        const auto now = Clock::now();
        if (now - last_sweep_ >= std::chrono::milliseconds(kWaitMs)) sweep(now);
    }
    {
        std::lock_guard lock(queue_mutex_);
        serving_ = false;
    }
    takeAdopted();
    for (auto& [fd, connection] : connections_) close(fd);
    connections_.clear();
    waiting_.store(0);
}

void ConnectionReader::readFrom(int fd, Connection& connection) {
    for (int reads = 0; reads < kReadsPerWake; ++reads) {
        RequestAssembler::Progress progress = RequestAssembler::Progress::NeedMore;
        switch (readOnce(fd, connection.assembler, progress)) {
            case Read::Drained:
                return;
            case Read::Closed:
                // The peer is done sending (or failed): what arrived is the request.
                finish(fd);
                return;
            case Read::Progress:
                connection.last_read = Clock::now();
                break;
        }
        switch (progress) {
            case RequestAssembler::Progress::NeedMore:
                break;
            default:
                finish(fd, progress);
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

void ConnectionReader::finish(int fd, RequestAssembler::Progress progress) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) return;
    std::unique_ptr<Connection> connection = std::move(it->second);
    connections_.erase(it);
    waiting_.fetch_sub(1);
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);

    if (connection->assembler.empty()) {
        // A connection that sends nothing gets no answer.
        close(fd);
        return;
    }
    if (progress != RequestAssembler::Progress::Complete) {
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
        sendUnreadable(fd, progress);
        close(fd);
        return;
    }
    handoff_(connection->assembler.finish(fd));
}

}  // namespace vostra::data
