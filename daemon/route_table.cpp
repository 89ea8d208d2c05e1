#include "daemon/route_table.h"

namespace vostra::data {

std::string_view RouteParams::operator[](std::string_view name) const {
    for (std::size_t i = 0; i < count_; ++i)
        if (items_[i].first == name) return items_[i].second;
    return {};
}

bool RouteParams::add(std::string_view name, std::string_view value) {
    if (count_ == kMaxParams) return false;
    items_[count_++] = {name, value};
    return true;
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
            return last && params.add(part.substr(1, part.size() - 3), rest);
        }
        if (path_done) return false;
        const std::size_t slash = path.find('/');
        const std::string_view segment = path.substr(0, slash);
        if (part.size() > 2 && part.front() == '{' && part.back() == '}') {
            if (!params.add(part.substr(1, part.size() - 2), segment)) return false;
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

}  // namespace vostra::data
