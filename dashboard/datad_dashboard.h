// DatadDashboard: the worker's built-in HTML pages, put together from fixed
// text pieces (header with the shared style sheet, navigation, one main
// section per page, footer with the shared script). Pages hold no data:
// the browser fills them from the daemon's JSON API through one helper,
// `api(method, path, body)`, which also asks for an API key when the
// daemon requires one. No external assets: styles, icons and script are
// all inline. Stateless; every operation is thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vostra::data {

class DatadDashboard {
public:
    static std::string getHeader(std::string_view title, std::string_view active_page);
    static std::string getDashboardCss();
    static std::string getSidebar(std::string_view active_page);
    static std::string getDashboardJs();
    static std::string getFooter();

    static std::string getCompleteDashboard();
    static std::string getNFSSettingsHtml();
    static std::string getStorageHtml();
    static std::string getDatabasesHtml();
    static std::string getVectorHtml();
    static std::string getScienceHtml();
    static std::string getDevToolBoxHtml();
    static std::string getAgentsHtml();

    // The page for a path under "/dashboard" (query string ignored);
    // nothing for a path that names no page.
    static std::optional<std::string> pageFor(std::string_view path);
};

}  // namespace vostra::data
