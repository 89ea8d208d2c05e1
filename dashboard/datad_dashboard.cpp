#include "dashboard/datad_dashboard.h"

#include "dashboard/dashboard_parts.h"

namespace vostra::data {
namespace {

struct NavEntry {
    std::string_view page;  // the id pages pass as "active page"
    std::string_view href;
    std::string_view label;
    std::string_view icon;  // SVG path data, 24x24, stroked
};

constexpr NavEntry kNavigation[] = {
    {"overview", "/dashboard/", "Overview", "M3 13h8V3H3zm10 8h8V11h-8zM3 21h8v-6H3zm10-18v6h8V3z"},
    {"databases", "/dashboard/databases", "Databases",
     "M4 6c0-1.7 3.6-3 8-3s8 1.3 8 3-3.6 3-8 3-8-1.3-8-3zm0 0v12c0 1.7 3.6 3 8 3s8-1.3 8-3V6M4 12c0 1.7 3.6 3 8 3s8-1.3 8-3"},
    {"storage", "/dashboard/storage", "Storage", "M3 7h6l2 2h10v10H3zM3 7V5h6l2 2"},
    {"vector", "/dashboard/vector", "Vector Store", "M12 2l9 5v10l-9 5-9-5V7zm0 0v20M3 7l9 5 9-5"},
    {"nfs", "/dashboard/nfs", "NFS Sharing", "M4 4h16v6H4zm0 10h16v6H4zM8 7h.01M8 17h.01"},
    {"science", "/dashboard/science", "Science", "M9 3h6M10 3v6l-5 9a2 2 0 0 0 2 3h10a2 2 0 0 0 2-3l-5-9V3"},
    {"agents", "/dashboard/agents", "Agents", "M12 12a4 4 0 1 0 0-8 4 4 0 0 0 0 8zm-7 9a7 7 0 0 1 14 0"},
    {"devtoolbox", "/dashboard/devtoolbox", "DevToolBox", "M8 9l-4 3 4 3m8-6l4 3-4 3M14 5l-4 14"},
};

std::string page(std::string_view title, std::string_view active, std::string_view main) {
    std::string html = DatadDashboard::getHeader(title, active);
    html += DatadDashboard::getSidebar(active);
    html += main;
    html += DatadDashboard::getFooter();
    return html;
}

// Text inserted into markup: the titles are ours, but stay safe if that changes.
std::string escaped(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out.push_back(c);
        }
    }
    return out;
}

}  // namespace

std::string DatadDashboard::getHeader(std::string_view title, std::string_view active_page) {
    std::string html =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"UTF-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";
    html += escaped(title);
    // An empty icon: the browser would otherwise ask for /favicon.ico.
    html += " - Vostra Data Worker</title>\n<link rel=\"icon\" href=\"data:,\">\n<style>\n";
    html += getDashboardCss();
    html += "</style>\n</head>\n<body data-page=\"";
    html += escaped(active_page);
    html += "\">\n<a class=\"skip\" href=\"#main\">Skip to content</a>\n<div class=\"container\">\n";
    return html;
}

std::string DatadDashboard::getSidebar(std::string_view active_page) {
    std::string html =
        "<nav class=\"sidebar\" aria-label=\"Pages\">\n<div class=\"brand\">Vostra <span>Data Worker</span></div>\n<ul>\n";
    for (const NavEntry& entry : kNavigation) {
        const bool active = entry.page == active_page;
        html += "<li><a href=\"";
        html += entry.href;
        html += active ? "\" class=\"active\" aria-current=\"page\">" : "\">";
        html += "<svg viewBox=\"0 0 24 24\" aria-hidden=\"true\"><path d=\"";
        html += entry.icon;
        html += "\"/></svg><span>";
        html += entry.label;
        html += "</span></a></li>\n";
    }
    html += "</ul>\n</nav>\n";
    return html;
}

std::string DatadDashboard::getFooter() {
    std::string html =
        "</div>\n<div id=\"toasts\" class=\"toasts\" aria-live=\"polite\"></div>\n"
        "<dialog id=\"key-dialog\" aria-labelledby=\"key-title\"><form method=\"dialog\" id=\"key-form\">"
        "<h2 id=\"key-title\">API key required</h2>"
        "<p>This worker asks for an API key. It is kept in this browser tab only.</p>"
        "<label for=\"key-input\">API key</label><input id=\"key-input\" type=\"password\" "
        "autocomplete=\"off\" required>"
        "<div class=\"actions\"><button type=\"submit\" class=\"primary\">Use key</button></div>"
        "</form></dialog>\n<script>\n";
    html += getDashboardJs();
    html += kFooterScript;
    html += "</script>\n</body>\n</html>\n";
    return html;
}

std::string DatadDashboard::getCompleteDashboard() { return page("Data Worker Overview", "overview", kOverviewMain); }
std::string DatadDashboard::getNFSSettingsHtml() { return page("NFS Sharing", "nfs", kNfsMain); }
std::string DatadDashboard::getStorageHtml() { return page("Storage Management", "storage", kStorageMain); }
std::string DatadDashboard::getDatabasesHtml() { return page("Database Sources", "databases", kDatabasesMain); }
std::string DatadDashboard::getVectorHtml() { return page("Vector Store", "vector", kVectorMain); }
std::string DatadDashboard::getScienceHtml() { return page("Scientific Data Providers", "science", kScienceMain); }
std::string DatadDashboard::getDevToolBoxHtml() { return page("DevToolBox", "devtoolbox", kDevToolBoxMain); }
std::string DatadDashboard::getAgentsHtml() { return page("Agent Storage", "agents", kAgentsMain); }

std::optional<std::string> DatadDashboard::pageFor(std::string_view path) {
    path = path.substr(0, path.find('?'));
    if (path == "/dashboard" || path == "/dashboard/") return getCompleteDashboard();
    if (path == "/dashboard/nfs") return getNFSSettingsHtml();
    if (path == "/dashboard/storage") return getStorageHtml();
    if (path == "/dashboard/databases") return getDatabasesHtml();
    if (path == "/dashboard/vector") return getVectorHtml();
    if (path == "/dashboard/science") return getScienceHtml();
    if (path == "/dashboard/agents") return getAgentsHtml();
    if (path == "/dashboard/devtoolbox") return getDevToolBoxHtml();
    return std::nullopt;
}

}  // namespace vostra::data
