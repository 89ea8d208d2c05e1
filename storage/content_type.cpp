#include "storage/content_type.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace vostra::data {
namespace {

using TypeRow = std::pair<std::string_view, std::string_view>;

constexpr std::string_view kDefaultType = "application/octet-stream";

constexpr std::array<TypeRow, 19> kFullTable = {{
    {".json", "application/json"},
    {".txt", "text/plain"},
    {".html", "text/html"},
    {".css", "text/css"},
    {".js", "application/javascript"},
    {".xml", "application/xml"},
    {".pdf", "application/pdf"},
    {".png", "image/png"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".gif", "image/gif"},
    {".svg", "image/svg+xml"},
    {".zip", "application/zip"},
    {".gz", "application/gzip"},
    {".tar", "application/x-tar"},
    {".md", "text/markdown"},
    {".yaml", "application/x-yaml"},
    {".yml", "application/x-yaml"},
    {".csv", "text/csv"},
}};

constexpr std::array<TypeRow, 9> kBasicTable = {{
    {".json", "application/json"},
    {".txt", "text/plain"},
    {".html", "text/html"},
    {".xml", "application/xml"},
    {".pdf", "application/pdf"},
    {".png", "image/png"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".gif", "image/gif"},
}};

// The extension of the last component, dot included, in lower case.
std::string extensionOf(std::string_view path) {
    std::size_t slash = path.rfind('/');
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos) return {};
    std::string ext(name.substr(dot));
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

template <std::size_t N>
std::string lookUp(const std::array<TypeRow, N>& table, std::string_view path) {
    const std::string ext = extensionOf(path);
    for (const auto& [extension, type] : table)
        if (ext == extension) return std::string(type);
    return std::string(kDefaultType);
}

}  // namespace

std::string detectContentType(std::string_view path) {
    return lookUp(kFullTable, path);
}

std::string detectBasicContentType(std::string_view path) {
    return lookUp(kBasicTable, path);
}

bool isValidContentType(std::string_view type) {
    return std::none_of(type.begin(), type.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

}  // namespace vostra::data
