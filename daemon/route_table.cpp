#include "daemon/route_table.h"

namespace vostra::data {

std::string_view RouteParams::operator[](std::string_view name) const {
    for (std::size_t i = 0; i < count_; ++i)
        if (items_[i].first == name) return items_[i].second;
    return {};
}

bool RouteParams::add(std::string_view name, std::string_view raw, bool whole_segment) {
    if (count_ == kMaxParams) return false;
    std::string value = percentDecode(raw);
    if (value.find('\0') != std::string::npos ||
        (whole_segment && value.find('/') != std::string::npos))
        unusable_ = true;
    items_[count_++] = {name, std::move(value)};
    return true;
}

std::string percentDecode(std::string_view text) {
    const auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
            hex(text[i + 2]) >= 0) {
            out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string_view pathWithoutQuery(std::string_view path) {
    return path.substr(0, path.find('?'));
}

HttpRequest withoutQuery(const HttpRequest& request) {
    HttpRequest routed;
    routed.fd = request.fd;
    routed.method = request.method;
    routed.path = std::string(pathWithoutQuery(request.path));
    routed.raw = request.raw;
    routed.body = std::move(request.body);
    return routed;
}

std::string queryParameter(std::string_view path, std::string_view name,
                           std::string_view fallback) {
    const std::size_t mark = path.find('?');
    if (mark == std::string_view::npos) return std::string(fallback);
    std::string_view query = path.substr(mark + 1);
    while (!query.empty()) {
        const std::size_t cut = query.find('&');
        std::string_view pair = query.substr(0, cut);
        query = cut == std::string_view::npos ? std::string_view() : query.substr(cut + 1);
        const std::size_t equals = pair.find('=');
        std::string key = percentDecode(pair.substr(0, equals));
        if (key != name) continue;
        std::string value(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
        std::replace(value.begin(), value.end(), '+', ' ');
        return percentDecode(value);
    }
    return std::string(fallback);
}

bool matchRoute(std::string_view pattern, std::string_view path, RouteParams& params) {
    // Both start with "/"; compare segment by segment after it.
    if (pattern.empty() || path.empty() || pattern[0] != '/' || path[0] != '/')
        return pattern == path;
    pattern.remove_prefix(1);
    path.remove_prefix(1);
    bool path_done = false;  // the path ran out before this pattern segment
    while (true) {
        const std::size_t cut = pattern.find('/');
        const std::string_view part = pattern.substr(0, cut);
        const bool last = cut == std::string_view::npos;

        if (part.size() > 3 && part.front() == '{' && (part.ends_with("*}") || part.ends_with("+}"))) {
            // The rest; the pattern must end here.
            const std::string_view rest = path_done ? std::string_view() : path;
            if (part.ends_with("+}") && rest.empty()) return false;
            return last && params.add(part.substr(1, part.size() - 3), rest, false);
        }
        if (path_done) return false;
        const std::size_t slash = path.find('/');
        const std::string_view segment = path.substr(0, slash);
        if (part.size() > 2 && part.front() == '{' && part.back() == '}') {
            if (!params.add(part.substr(1, part.size() - 2), segment, true)) return false;
        } else if (part != segment) {
            return false;
        }
        if (last) return slash == std::string_view::npos;
        pattern.remove_prefix(cut + 1);
        if (slash == std::string_view::npos)
            path_done = true;
        else
            path.remove_prefix(slash + 1);
    }
}

namespace {
std::vector<ListedRoute>& listed() {
    static std::vector<ListedRoute> routes;
    return routes;
}
}  // namespace

// Filled by static initialisers before main, read afterwards: no lock.
const std::vector<ListedRoute>& listedRoutes() { return listed(); }
void addListedRoute(ListedRoute route) { listed().push_back(std::move(route)); }

}  // namespace vostra::data
