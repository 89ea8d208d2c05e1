// Routes of one API area as rows {method, path pattern, handler}, and the
// shared code that picks the row for a request. The ordered prefix table in
// router.cpp says which area a path belongs to; inside the area this answers
// 404 with the area's own message when no pattern fits the path and 405
// "Method not allowed" when one fits but not for this method, so handlers
// never spell either. Stateless; thread-safe.
//
// Patterns are matched against the path as received (a query string stays
// part of it), segment by segment; what a name captures is then
// percent-decoded. A decoded NUL, or a decoded "/" inside one segment, makes
// the request a bad one (400) before any handler runs.
//   literal     the same text ("sources"); an empty literal (a trailing "/")
//               matches only an empty segment
//   {name}      one segment, any text without "/" (possibly empty)
//   {name*}     the rest of the path, "/" included, possibly empty; the "/"
//               before it may be missing too ("/a/{p*}" matches "/a")
//   {name+}     the rest of the path, "/" included, at least one byte
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemon/http_message.h"

namespace vostra::data {

// The named parts of a matched path, percent-decoded.
class RouteParams {
public:
    // The decoded text matched by {name}, {name*} or {name+}; empty when none.
    std::string_view operator[](std::string_view name) const;
    std::string get(std::string_view name) const { return std::string((*this)[name]); }
    // Decodes and keeps `raw`; a whole segment may not decode to a "/".
    // False when the pattern has more names than a route may have.
    bool add(std::string_view name, std::string_view raw, bool whole_segment);
    // Some part decoded to a NUL, or a segment to a "/".
    bool unusable() const { return unusable_; }

private:
    static constexpr std::size_t kMaxParams = 4;
    std::array<std::pair<std::string_view, std::string>, kMaxParams> items_{};
    std::size_t count_ = 0;
    bool unusable_ = false;
};

// `text` with every "%XX" (two hex digits) replaced by its byte; anything
// else, a lone "%" included, is kept as it stands.
std::string percentDecode(std::string_view text);

// The value of query parameter `name` in a path as received ("a=1&b=x"
// after its "?"), percent-decoded with "+" read as a blank; `fallback` when
// absent.
std::string queryParameter(std::string_view path, std::string_view name,
                           std::string_view fallback = {});

// `path` without its query string.
std::string_view pathWithoutQuery(std::string_view path);

// `request` for matching rows that must not see the query string (the
// handler then reads it from the original path); the body is moved over.
HttpRequest withoutQuery(const HttpRequest& request);

// Whether `path` fits `pattern`; fills `params` when it does.
bool matchRoute(std::string_view pattern, std::string_view path, RouteParams& params);

// One row: a null handler answers the area's 404, for paths that must not
// fall through to 405 (a GET of an unknown sub-resource).
template <typename Handler>
struct Route {
    std::string_view method;
    std::string_view pattern;
    Handler handler;
};

// The usual row: a free function handed the area's service.
template <typename Service>
using ServiceRoute = Route<void (*)(Service&, const HttpRequest&, const RouteParams&)>;

// Every served route, for the API description ("/api/v1/openapi.json"):
// each route file lists its table once, at start-up, with listRoutes().
struct ListedRoute {
    std::string method;
    std::string pattern;  // "{area}" replaced by the area
    std::string area;
};
const std::vector<ListedRoute>& listedRoutes();
void addListedRoute(ListedRoute route);

// Lists the rows that have a handler; returns true, for use as a static
// initialiser.
template <typename Handler, std::size_t N>
bool listRoutes(std::string_view area, const Route<Handler> (&rows)[N]) {
    for (const Route<Handler>& row : rows) {
        if (!row.handler) continue;
        std::string pattern(row.pattern);
        if (const std::size_t at = pattern.find("{area}"); at != std::string::npos) pattern.replace(at, 6, area);
        addListedRoute({std::string(row.method), std::move(pattern), std::string(area)});
    }
    return true;
}

constexpr const char* kMethodNotAllowed = "Method not allowed";
constexpr const char* kBadPathEncoding = "Invalid encoded character in path";

// Serves `request` with the first row whose pattern and method fit, calling
// handler(target, request, params) (a free function taking the area's
// service, or a member function of it). A key of the wrong JSON type met
// while a handler reads the body answers 400 with the parser's message.
template <typename Target, typename Handler, std::size_t N>
void serveRoutes(Target& target, const Route<Handler> (&routes)[N], const HttpRequest& request,
                 std::string_view not_found) {
    bool path_fits = false;
    for (const Route<Handler>& route : routes) {
        RouteParams params;
        if (!matchRoute(route.pattern, request.path, params)) continue;
        path_fits = true;
        if (route.method != request.method) continue;
        if (!route.handler) break;
        if (params.unusable()) {
            sendError(request.fd, 400, kBadPathEncoding);
            return;
        }
        try {
            std::invoke(route.handler, target, request, params);
        } catch (const nlohmann::json::exception& error) {
            sendError(request.fd, 400, error.what());
        }
        return;
    }
    const bool method_only = path_fits && !std::ranges::any_of(routes, [&](const auto& route) {
        RouteParams unused;
        return !route.handler && route.method == request.method &&
               matchRoute(route.pattern, request.path, unused);
    });
    if (method_only)
        sendError(request.fd, 405, kMethodNotAllowed);
    else
        sendError(request.fd, 404, std::string(not_found));
}

// serveRoutes with the service in `slot`, or 503 `unavailable` without one.
template <typename Slot, typename Handler, std::size_t N>
void serveRoutesIn(const Slot& slot, const Route<Handler> (&routes)[N], const HttpRequest& request,
                   std::string_view not_found, std::string_view unavailable) {
    slot.with([&](auto& service) { serveRoutes(service, routes, request, not_found); },
              [&] { sendError(request.fd, 503, std::string(unavailable)); });
}

}  // namespace vostra::data
