// Figures for monitoring in the Prometheus text format (version 0.0.4):
// RequestMetrics counts every answered request by route family and status
// class with a latency histogram; PrometheusText writes families of
// samples with their HELP and TYPE lines. Thread-safe (RequestMetrics is a
// grid of atomics; a PrometheusText belongs to one caller).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vostra::data {

class PrometheusText {
public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    // Starts a family; `type` is "counter", "gauge", "histogram" or "summary".
    void family(std::string_view name, std::string_view type, std::string_view help);
    void sample(std::string_view name, const Labels& labels, double value);
    void sample(std::string_view name, double value) { sample(name, {}, value); }
    const std::string& text() const { return out_; }

private:
    std::string out_;
};

class RequestMetrics {
public:
    static constexpr std::array<double, 12> kBuckets = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                        0.1,   0.25,   0.5,   1.0,  2.5,   10.0};

    // The family of a path: "storage" for "/api/v1/storage/...", "health",
    // "dashboard", "root", or "other" for what no area serves.
    static std::string_view familyOf(std::string_view path);

    void record(std::string_view path, int status, std::chrono::steady_clock::duration took);
    // Appends vostra_http_requests_total and vostra_http_request_duration_seconds.
    void write(PrometheusText& text) const;

    static constexpr std::size_t kFamilyCount = 25;

private:
    static constexpr std::size_t kClasses = 5;  // 1xx-2xx, 3xx, 4xx, 5xx, none
    struct Cell {
        std::atomic<uint64_t> count{0};
        std::atomic<uint64_t> micros{0};
        std::array<std::atomic<uint64_t>, kBuckets.size()> buckets{};
    };
    std::array<std::array<Cell, kClasses>, kFamilyCount> cells_{};
};

}  // namespace vostra::data
