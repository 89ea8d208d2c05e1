#include "science/science_url.h"

#include <cctype>

namespace vostra::data {
namespace {

bool unreserved(unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~';
}

// Query parameter values end at these.
bool endsValue(char c) {
    return c == '&' || c == '#' || c == ' ' || c == '"' || c == '\'';
}

}  // namespace

std::string escapeUrlComponent(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (unreserved(byte)) {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0F];
        }
    }
    return out;
}

std::string appendQueryParameter(std::string url, std::string_view name, std::string_view value) {
    url += url.find('?') == std::string::npos ? '?' : '&';
    url += escapeUrlComponent(name);
    url += '=';
    url += escapeUrlComponent(value);
    return url;
}

std::string buildUrl(std::string_view base_url, std::string_view endpoint,
                     const std::map<std::string, std::string>& params) {
    std::string url(base_url);
    if (!endpoint.empty()) {
        const bool base_slash = url.ends_with('/');
        const bool endpoint_slash = endpoint.starts_with('/');
        if (base_slash && endpoint_slash)
            url.pop_back();
        else if (!base_slash && !endpoint_slash)
            url += '/';
        url += endpoint;
    }
    for (const auto& [name, value] : params)
        url = appendQueryParameter(std::move(url), name, value);
    return url;
}

std::string maskSecrets(std::string text, const std::vector<std::string>& names,
                        const std::vector<std::string>& secrets) {
    for (const std::string& secret : secrets) {
        if (secret.empty()) continue;
        for (std::size_t at = text.find(secret); at != std::string::npos;
             at = text.find(secret, at + 3))
            text.replace(at, secret.size(), "***");
    }
    for (const std::string& name : names) {
        if (name.empty()) continue;
        const std::string needle = name + "=";
        for (std::size_t at = text.find(needle); at != std::string::npos;
             at = text.find(needle, at + 1)) {
            const bool starts_parameter = at > 0 && (text[at - 1] == '?' || text[at - 1] == '&');
            if (!starts_parameter) continue;
            const std::size_t value = at + needle.size();
            std::size_t end = value;
            while (end < text.size() && !endsValue(text[end]))
                ++end;
            text.replace(value, end - value, "***");
        }
    }
    return text;
}

}  // namespace vostra::data
