#include "daemon/request_metrics.h"

#include <cmath>
#include <cstdio>

namespace vostra::data {
namespace {

// Index = family id; "other" last.
constexpr std::string_view kFamilies[] = {
    "root",   "health",   "info",      "metrics",     "dashboard", "data",    "tenants",
    "storage", "vector",  "nfs",       "git",         "models",    "science", "agents",
    "swarms", "workspaces", "outputs", "skills",      "automations", "sandboxes", "cicd",
    "triage", "auth",     "openapi",   "other",
};
static_assert(std::size(kFamilies) == RequestMetrics::kFamilyCount);
constexpr std::string_view kClassNames[] = {"2xx", "3xx", "4xx", "5xx", "none"};

std::size_t classOf(int status) {
    if (status >= 100 && status < 300) return 0;
    if (status >= 300 && status < 400) return 1;
    if (status >= 400 && status < 500) return 2;
    if (status >= 500 && status < 600) return 3;
    return 4;
}

std::string number(double value) {
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    if (value == std::floor(value) && std::fabs(value) < 1e15) return std::to_string(static_cast<int64_t>(value));
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

void appendEscaped(std::string& out, std::string_view value) {
    for (char c : value) {
        if (c == '\\' || c == '"') out.push_back('\\');
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out.push_back(c);
    }
}

}  // namespace

void PrometheusText::family(std::string_view name, std::string_view type, std::string_view help) {
    out_.append("# HELP ").append(name).append(" ").append(help).append("\n");
    out_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void PrometheusText::sample(std::string_view name, const Labels& labels, double value) {
    out_.append(name);
    if (!labels.empty()) {
        out_.push_back('{');
        for (std::size_t i = 0; i < labels.size(); ++i) {
            if (i) out_.push_back(',');
            out_.append(labels[i].first).append("=\"");
            appendEscaped(out_, labels[i].second);
            out_.push_back('"');
        }
        out_.push_back('}');
    }
    out_.append(" ").append(number(value)).append("\n");
}

std::string_view RequestMetrics::familyOf(std::string_view path) {
    path = path.substr(0, path.find('?'));
    if (path == "/") return "root";
    if (path == "/health" || path == "/info" || path == "/metrics") return path.substr(1);
    if (path == "/dashboard" || path.starts_with("/dashboard/")) return "dashboard";
    if (path.starts_with("/api/v1/")) {
        std::string_view rest = path.substr(8);
        rest = rest.substr(0, rest.find('/'));
        if (rest == "openapi.json") return "openapi";
        for (std::string_view family : kFamilies)
            if (family == rest) return family;
    }
    return "other";
}

void RequestMetrics::record(std::string_view path, int status, std::chrono::steady_clock::duration took) {
    const std::string_view family = familyOf(path);
    std::size_t index = std::size(kFamilies) - 1;
    for (std::size_t i = 0; i < std::size(kFamilies); ++i)
        if (kFamilies[i] == family) index = i;
    Cell& cell = cells_[index][classOf(status)];
    const uint64_t micros = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    cell.count.fetch_add(1, std::memory_order_relaxed);
    cell.micros.fetch_add(micros, std::memory_order_relaxed);
    const double seconds = static_cast<double>(micros) / 1e6;
    for (std::size_t b = 0; b < kBuckets.size(); ++b)
        if (seconds <= kBuckets[b]) {
            cell.buckets[b].fetch_add(1, std::memory_order_relaxed);
            break;
        }
}

void RequestMetrics::write(PrometheusText& text) const {
    text.family("vostra_http_requests_total", "counter", "Requests answered, by route family and status class.");
    for (std::size_t f = 0; f < std::size(kFamilies); ++f)
        for (std::size_t c = 0; c < kClasses; ++c)
            if (const uint64_t count = cells_[f][c].count.load(); count > 0)
                text.sample("vostra_http_requests_total",
                            {{"family", std::string(kFamilies[f])}, {"code", std::string(kClassNames[c])}},
                            static_cast<double>(count));
    text.family("vostra_http_request_duration_seconds", "histogram",
                "Time from a complete request to its answer, by route family and status class.");
    for (std::size_t f = 0; f < std::size(kFamilies); ++f) {
        for (std::size_t c = 0; c < kClasses; ++c) {
            const Cell& cell = cells_[f][c];
            const uint64_t count = cell.count.load();
            if (count == 0) continue;
            const PrometheusText::Labels labels = {{"family", std::string(kFamilies[f])},
                                                   {"code", std::string(kClassNames[c])}};
            // Buckets are kept apart and summed here, so a bucket never
            // counts fewer than the one below it.
            uint64_t cumulative = 0;
            for (std::size_t b = 0; b < kBuckets.size(); ++b) {
                cumulative += cell.buckets[b].load();
                PrometheusText::Labels with_le = labels;
                with_le.emplace_back("le", number(kBuckets[b]));
                text.sample("vostra_http_request_duration_seconds_bucket", with_le, static_cast<double>(cumulative));
            }
            PrometheusText::Labels infinite = labels;
            infinite.emplace_back("le", "+Inf");
            text.sample("vostra_http_request_duration_seconds_bucket", infinite,
                        static_cast<double>(std::max(count, cumulative)));
            text.sample("vostra_http_request_duration_seconds_sum", labels,
                        static_cast<double>(cell.micros.load()) / 1e6);
            text.sample("vostra_http_request_duration_seconds_count", labels, static_cast<double>(std::max(count, cumulative)));
        }
    }
}

}  // namespace vostra::data
