// The per-provider rate limits and the response cache, on a clock the
// tests move by hand (no sleeping, no timing assertions), and under
// concurrent callers.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "science/rate_limiter.h"
#include "science/response_cache.h"

namespace vostra::data {
namespace {

using namespace std::chrono_literals;

class ManualClock {
public:
    std::chrono::steady_clock::time_point operator()() const { return now_; }
    void advance(std::chrono::steady_clock::duration by) { now_ += by; }

private:
    std::chrono::steady_clock::time_point now_{};
};

TEST(RateLimiter, RefusesOverTheMinuteBudgetUntilTheOldestRequestAgesOut) {
    ManualClock clock;
    RateLimiter limiter(std::ref(clock));
    EXPECT_TRUE(limiter.acquire("nasa", 2));
    clock.advance(30s);
    EXPECT_TRUE(limiter.acquire("nasa", 2));
    EXPECT_FALSE(limiter.acquire("nasa", 2));
    EXPECT_TRUE(limiter.acquire("crossref", 2)) << "budgets are per provider";
    clock.advance(29s);
    EXPECT_FALSE(limiter.acquire("nasa", 2)) << "refusals take nothing, the window still holds two";
    clock.advance(1s);
    EXPECT_TRUE(limiter.acquire("nasa", 2)) << "the first request is a minute old";
    EXPECT_FALSE(limiter.acquire("nasa", 2));
    for (int i = 0; i < 1000; ++i)
        EXPECT_TRUE(limiter.acquire("free", 0));
}

TEST(RateLimiter, ConcurrentCallersNeverOverdrawABudget) {
    RateLimiter limiter;
    std::atomic<int> granted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i)
                if (limiter.acquire("shared", 100)) ++granted;
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(granted.load(), 100);
}

ScienceResult answer(const std::string& text) {
    ScienceResult result;
    result.success = true;
    result.data = text;
    return result;
}

TEST(ResponseCache, ForgetsAnswersAfterTheirLifetime) {
    ManualClock clock;
    ResponseCache cache({.ttl = 300s, .max_entries = 8, .max_bytes = 1000}, std::ref(clock));
    cache.store("k", answer("v"), 1);
    clock.advance(299s);
    ASSERT_TRUE(cache.find("k"));
    EXPECT_EQ(cache.find("k")->data, "v");
    clock.advance(1s);
    EXPECT_FALSE(cache.find("k"));
    EXPECT_EQ(cache.size(), 0u);
}

TEST(ResponseCache, StaysWithinItsEntryAndByteBoundsDroppingTheOldest) {
    ManualClock clock;
    ResponseCache cache({.ttl = 300s, .max_entries = 3, .max_bytes = 400}, std::ref(clock));
    for (const char* key : {"a", "b", "c", "d"})
        cache.store(key, answer(key), 10);
    EXPECT_FALSE(cache.find("a"));
    EXPECT_TRUE(cache.find("b") && cache.find("c") && cache.find("d"));

    cache.store("big", answer("big"), 100);  // a quarter of the bytes: kept
    EXPECT_TRUE(cache.find("big"));
    EXPECT_FALSE(cache.find("b"));
    cache.store("huge", answer("huge"), 101);  // over a quarter: never kept
    EXPECT_FALSE(cache.find("huge"));

    ResponseCache tight({.ttl = 300s, .max_entries = 10, .max_bytes = 400}, std::ref(clock));
    for (const char* key : {"1", "2", "3", "4", "5"})
        tight.store(key, answer(key), 100);
    EXPECT_EQ(tight.size(), 4u);
    EXPECT_FALSE(tight.find("1"));

    cache.store("c", answer("again"), 10);  // replacing keeps one entry
    EXPECT_EQ(cache.find("c")->data, "again");
    EXPECT_EQ(cache.size(), 3u);
}

TEST(ResponseCache, ConcurrentReadersAndWritersKeepItConsistent) {
    ResponseCache cache({.ttl = 300s, .max_entries = 16, .max_bytes = 1 << 20});
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                const std::string key = std::to_string((t * 7 + i) % 40);
                if (i % 3 == 0) {
                    cache.store(key, answer(key), 8);
                } else if (auto hit = cache.find(key)) {
                    EXPECT_EQ(hit->data, key);
                }
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(cache.size(), 16u);
}

}  // namespace
}  // namespace vostra::data
