// ServiceSlot under concurrent use: calls never meet a service that is being
// shut down, and the fallback answers while the slot is empty.
#include "common/service_slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vostra {
namespace {

struct Counter {
    explicit Counter(std::atomic<int>& live) : live_(live) { live_.fetch_add(1); }
    ~Counter() { live_.fetch_sub(1); }
    int use() const { return stopped_.load() ? -1 : 1; }
    void shutdown() { stopped_.store(true); }

    std::atomic<int>& live_;
    std::atomic<bool> stopped_{false};
};

TEST(ServiceSlot, ServesOrFallsBackAndShutsDownWhatItDrops) {
    std::atomic<int> live{0};
    ServiceSlot<Counter> slot;
    EXPECT_EQ(slot.with([](Counter& c) { return c.use(); }, 0), 0);
    EXPECT_EQ(slot.with([](Counter& c) { return c.use(); }, [] { return 7; }), 7);
    slot.replace(std::make_unique<Counter>(live));
    EXPECT_TRUE(slot.present());
    EXPECT_EQ(slot.with([](Counter& c) { return c.use(); }, 0), 1);
    slot.replace([&] { return std::make_unique<Counter>(live); });
    EXPECT_EQ(live.load(), 1);
    slot.replace([] { return std::unique_ptr<Counter>(); });  // a start that failed
    EXPECT_FALSE(slot.present());
    EXPECT_EQ(live.load(), 0);
}

TEST(ServiceSlotConcurrency, CallsNeverSeeAStoppedServiceWhileItIsSwapped) {
    std::atomic<int> live{0};
    std::atomic<bool> bad{false};
    std::atomic<bool> done{false};
    {
        ServiceSlot<Counter> slot;
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i) {
            callers.emplace_back([&] {
                while (!done.load())
                    if (slot.with([](Counter& c) { return c.use(); }, 0) < 0) bad.store(true);
            });
        }
        for (int round = 0; round < 300; ++round) {
            if (round % 3 == 2)
                slot.reset();
            else
                slot.replace(std::make_unique<Counter>(live));
        }
        done.store(true);
        for (std::thread& caller : callers) caller.join();
    }
    EXPECT_FALSE(bad.load());
    EXPECT_EQ(live.load(), 0);
}

}  // namespace
}  // namespace vostra
