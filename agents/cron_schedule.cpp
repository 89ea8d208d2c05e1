#include "agents/cron_schedule.h"

#include <array>
#include <cctype>
#include <ctime>
#include <sstream>
#include <string_view>
#include <vector>

namespace vostra::data {
namespace {

struct FieldRule {
    const char* name;
    int low;
    int high;
    const char* const* names;  // three-letter names from `low`, or null
};

constexpr const char* kMonthNames[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                       "jul", "aug", "sep", "oct", "nov", "dec", nullptr};
constexpr const char* kDayNames[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat", nullptr};

constexpr FieldRule kFields[] = {
    {"minute", 0, 59, nullptr},      {"hour", 0, 23, nullptr},
    {"day of month", 1, 31, nullptr}, {"month", 1, 12, kMonthNames},
    {"day of week", 0, 7, kDayNames},
};

// "<field>: <what>"; built by appending, which also keeps g++ 12's
// -Warray-bounds false alarm on chained string additions away.
std::string problem(const FieldRule& rule, std::string_view what) {
    std::string text = rule.name;
    text += ": ";
    text.append(what);
    return text;
}

bool readNumber(const std::string& text, const FieldRule& rule, int& value, std::string& error) {
    if (text.empty()) {
        error = problem(rule, "empty value");
        return false;
    }
    if (rule.names && std::isalpha(static_cast<unsigned char>(text[0]))) {
        std::string lowered;
        for (char c : text) lowered += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        for (int i = 0; rule.names[i]; ++i) {
            if (lowered == rule.names[i]) {
                value = rule.low + i;
                return true;
            }
        }
        error = problem(rule, "unknown name " + text);
        return false;
    }
    if (text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos) {
        error = problem(rule, text + " is not a number");
        return false;
    }
    value = std::stoi(text);
    if (value < rule.low || value > rule.high) {
        error = problem(rule, text + " is out of range " + std::to_string(rule.low) + "-" +
                                  std::to_string(rule.high));
        return false;
    }
    return true;
}

// Sets the values `field` names in `bits` (indexed by value).
template <std::size_t N>
bool readField(const std::string& field, const FieldRule& rule, std::bitset<N>& bits,
               std::string& error) {
    std::stringstream items(field);
    std::string item;
    while (std::getline(items, item, ',')) {
        int step = 1;
        if (const std::size_t slash = item.find('/'); slash != std::string::npos) {
            const std::string step_text = item.substr(slash + 1);
            if (step_text.empty() || step_text.size() > 4 ||
                step_text.find_first_not_of("0123456789") != std::string::npos ||
                (step = std::stoi(step_text)) < 1) {
                error = problem(rule, "bad step in " + item);
                return false;
            }
            item.resize(slash);
        }
        int low = rule.low;
        int high = rule.high;
        if (item != "*") {
            const std::size_t dash = item.find('-');
            if (!readNumber(item.substr(0, dash), rule, low, error)) return false;
            high = low;
            if (dash != std::string::npos) {
                if (!readNumber(item.substr(dash + 1), rule, high, error)) return false;
            } else if (step > 1) {
                high = rule.high;  // "a/n" runs from a to the end
            }
            if (high < low) {
                error = problem(rule, "range " + item + " runs backwards");
                return false;
            }
        }
        for (int value = low; value <= high; value += step) bits.set(static_cast<std::size_t>(value));
    }
    if (field.empty() || field.back() == ',' || bits.none()) {
        error = problem(rule, "empty value");
        return false;
    }
    return true;
}

}  // namespace

std::optional<CronSchedule> CronSchedule::parse(const std::string& text, std::string& error) {
    std::stringstream words(text);
    std::vector<std::string> fields;
    for (std::string word; words >> word;) fields.push_back(word);
    if (fields.size() != 5) {
        error = "expected 5 fields (minute hour day-of-month month day-of-week), got " +
                std::to_string(fields.size());
        return std::nullopt;
    }
    CronSchedule schedule;
    std::bitset<8> weekdays;
    if (!readField(fields[0], kFields[0], schedule.minutes_, error) ||
        !readField(fields[1], kFields[1], schedule.hours_, error) ||
        !readField(fields[2], kFields[2], schedule.days_, error) ||
        !readField(fields[3], kFields[3], schedule.months_, error) ||
        !readField(fields[4], kFields[4], weekdays, error))
        return std::nullopt;
    for (int day = 0; day < 7; ++day) schedule.weekdays_[day] = weekdays[day];
    if (weekdays[7]) schedule.weekdays_[0] = true;
    schedule.any_day_ = fields[2].starts_with('*');
    schedule.any_weekday_ = fields[4].starts_with('*');
    return schedule;
}

std::optional<std::chrono::system_clock::time_point> CronSchedule::nextRun(
    std::chrono::system_clock::time_point after) const {
    using namespace std::chrono;
    // Walk day by day, then hour and minute within a matching day: at most
    // eight years of days, each a constant amount of work.
    const auto start = floor<minutes>(after) + minutes(1);
    const auto start_day = floor<days>(start);
    for (int offset = 0; offset < 366 * 8; ++offset) {
        const sys_days day = start_day + days(offset);
        const year_month_day date(day);
        const unsigned month = static_cast<unsigned>(date.month());
        const unsigned day_of_month = static_cast<unsigned>(date.day());
        const unsigned day_of_week = std::chrono::weekday(day).c_encoding();
        if (!months_[month]) continue;
        const bool day_ok = days_[day_of_month];
        const bool weekday_ok = weekdays_[day_of_week];
        // A field starting with "*" leaves the choice to the other one.
        const bool fires = any_day_ || any_weekday_ ? day_ok && weekday_ok : day_ok || weekday_ok;
        if (!fires) continue;
        for (int hour = 0; hour < 24; ++hour) {
            if (!hours_[hour]) continue;
            for (int minute = 0; minute < 60; ++minute) {
                if (!minutes_[minute]) continue;
                const auto candidate = sys_time<minutes>(day) + hours(hour) + minutes(minute);
                if (candidate >= start) return candidate;
            }
        }
    }
    return std::nullopt;
}

std::string isoTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

}  // namespace vostra::data
