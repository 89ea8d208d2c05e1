// The reader of slow requests: connections adopted from several threads are
// finished as their bytes arrive, stalled ones are handed on with what they
// sent, silent ones are closed unanswered, and unreadable ones answered.
#include "daemon/connection_reader.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/daemon_process.h"
#include "tests/support/http_test_client.h"

namespace vostra::data {
namespace {

using namespace std::chrono_literals;

class ConnectionReaderTest : public ::testing::Test {
protected:
    void start(ConnectionReader::Limits limits) {
        reader_ = std::make_unique<ConnectionReader>(limits, [this](HttpRequest&& request) {
            std::lock_guard lock(mutex_);
            handed_.push_back(request.path + "|" + request.body);
            close(request.fd);
        });
        ASSERT_TRUE(reader_->ready());
        thread_ = std::thread([this] { reader_->run(running_); });
        // adopt() closes what it gets before run() is serving.
        ASSERT_TRUE(test::eventually([&] { return reader_->serving(); }));
    }
    void TearDown() override {
        running_.store(false);
        if (thread_.joinable()) thread_.join();
    }
    std::vector<std::string> handed() {
        std::lock_guard lock(mutex_);
        return handed_;
    }

    std::atomic<bool> running_{true};
    std::unique_ptr<ConnectionReader> reader_;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> handed_;
};

TEST_F(ConnectionReaderTest, FinishesRequestsAdoptedFromManyThreads) {
    start({});
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<int> clients[kThreads];
    std::vector<std::thread> adopters;
    for (int t = 0; t < kThreads; ++t) {
        adopters.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                int fds[2];
                socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
                RequestAssembler partial;
                partial.feed("PUT /r" + std::to_string(t * kEach + i) + " HTTP/1.1\r\nConte");
                reader_->adopt(fds[0], std::move(partial), std::chrono::steady_clock::now());
                clients[t].push_back(fds[1]);
            }
        });
    }
    for (std::thread& adopter : adopters) adopter.join();
    for (auto& list : clients)
        for (int fd : list) test::sendAll(fd, "nt-Length: 2\r\n\r\nok");
    ASSERT_TRUE(test::eventually([&] { return handed().size() == kThreads * kEach; }));
    const std::vector<std::string> all = handed();
    const std::set<std::string> seen(all.begin(), all.end());
    EXPECT_EQ(seen.size(), std::size_t(kThreads * kEach));
    EXPECT_TRUE(seen.count("/r0|ok") && seen.count("/r99|ok"));
    EXPECT_EQ(reader_->waiting(), 0u);
    for (auto& list : clients)
        for (int fd : list) close(fd);
}

TEST_F(ConnectionReaderTest, HandsOnStalledRequestsClosesSilentOnesAndAnswersOversizedHeads) {
    ConnectionReader::Limits limits;
    limits.stall = 300ms;
    start(limits);
    int stalled[2], silent[2], oversized[2];
    for (int* pair : {stalled, silent, oversized}) socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    RequestAssembler partial;
    partial.feed("PUT /s HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
    reader_->adopt(stalled[0], std::move(partial), std::chrono::steady_clock::now());
    reader_->adopt(silent[0], RequestAssembler(), std::chrono::steady_clock::now());
    reader_->adopt(oversized[0], RequestAssembler(), std::chrono::steady_clock::now());
    test::sendAll(oversized[1], "GET / HTTP/1.1\r\nX: " + std::string(RequestAssembler::kMaxHeaderBytes, 'x'));

    EXPECT_EQ(test::parseResponse(test::readAll(oversized[1], 5000)).outcome(),
              "431 Request header fields too large");
    ASSERT_TRUE(test::eventually([&] { return handed().size() == 1; }));
    EXPECT_EQ(handed()[0], "/s|abc");
    EXPECT_EQ(test::readAll(silent[1], 5000), "");  // closed without a word
    EXPECT_TRUE(test::eventually([&] { return reader_->waiting() == 0; }));
    for (int* pair : {stalled, silent, oversized}) close(pair[1]);
}

}  // namespace
}  // namespace vostra::data
