// Five-field cron schedules ("minute hour day-of-month month day-of-week"),
// as automations name them, and the next time one fires. Fields take "*",
// numbers, ranges "a-b", lists "a,b", steps "*/n" and "a-b/n", and the
// English three-letter names of months and days; day of week 0 or 7 is
// Sunday. As in classic cron, when both day fields are restricted (neither
// starts with "*") a day matching either one fires; otherwise both must. Times are UTC. Plain values; thread-safe.
#pragma once

#include <bitset>
#include <chrono>
#include <optional>
#include <string>

namespace vostra::data {

class CronSchedule {
public:
    // The schedule, or nothing with the reason in `error` ("expected 5
    // fields", "minute: 61 is out of range 0-59", ...).
    static std::optional<CronSchedule> parse(const std::string& text, std::string& error);

    // The first minute strictly after `after` at which the schedule fires;
    // nothing when none comes within eight years (a 30 February).
    std::optional<std::chrono::system_clock::time_point> nextRun(
        std::chrono::system_clock::time_point after) const;

private:
    std::bitset<60> minutes_;
    std::bitset<24> hours_;
    std::bitset<32> days_;    // 1..31
    std::bitset<13> months_;  // 1..12
    std::bitset<7> weekdays_;  // 0 = Sunday
    bool any_day_ = true;      // day of month was "*"
    bool any_weekday_ = true;  // day of week was "*"
};

// "2026-11-23T18:00:00Z".
std::string isoTime(std::chrono::system_clock::time_point time);

}  // namespace vostra::data
