#include "sandbox/log_triage.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <vector>

namespace vostra::sandbox {
namespace {

using nlohmann::json;

// Long lines (minified output, base64) are shown cut, not whole.
constexpr std::size_t kMaxShownLine = 500;

bool isAlpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '/' ||
           c == '\\' || c == '~' || c == '+' || c == '@' || c == '-';
}

std::string lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Colour codes of terminals ("\x1b[31m") are not part of the message.
std::string withoutEscapes(std::string_view line) {
    std::string out;
    out.reserve(line.size());
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\x1b' && i + 1 < line.size() && line[i + 1] == '[') {
            i += 2;
            while (i < line.size() && !isAlpha(line[i])) ++i;
            continue;
        }
        if (line[i] != '\r') out.push_back(line[i]);
    }
    return out;
}

// `word` lower-cased; `original` as written.
std::string_view wordSeverity(const std::string& word, std::string_view original) {
    static const char* const kErrors[] = {"error",   "errors",    "fatal",     "exception",
                                          "panic",   "panicked",  "fail",      "failed",
                                          "failure", "failures",  "traceback", "segfault",
                                          "aborted", "assertion"};
    static const char* const kWarnings[] = {"warning", "warnings", "warn", "deprecated",
                                            "deprecation"};
    for (const char* error : kErrors)
        if (word == error) return "error";
    // ValueError, NullPointerException and their kind, but not "terror".
    for (std::string_view suffix : {"error", "exception"})
        if (word.size() > suffix.size() && word.ends_with(suffix) &&
            std::isupper(static_cast<unsigned char>(original[word.size() - suffix.size()])))
            return "error";
    for (const char* warning : kWarnings)
        if (word == warning) return "warning";
    return "";
}

bool isPath(std::string_view word) {
    const std::size_t slashes = std::count(word.begin(), word.end(), '/');
    const std::size_t backslashes = std::count(word.begin(), word.end(), '\\');
    if (slashes + backslashes == 0 || word.size() < 2) return false;
    if (word.front() == '/' || word.front() == '~' || word.starts_with("./") || word.starts_with("../"))
        return true;
    if (slashes + backslashes >= 2) return true;
    const std::size_t last = word.find_last_of("/\\");
    return word.find('.', last) != std::string_view::npos;  // "src/main.cpp"
}

bool isUuid(std::string_view word) {
    if (word.size() != 36) return false;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? word[i] != '-' : !isHex(word[i])) return false;
    }
    return true;
}

bool isHexId(std::string_view word) {
    if (word.size() < 7 || !std::all_of(word.begin(), word.end(), isHex)) return false;
    return std::any_of(word.begin(), word.end(), isDigit) &&
           std::any_of(word.begin(), word.end(), isAlpha);
}

void appendWord(std::string_view word, std::string& out) {
    if (isPath(word)) {
        out += "<path>";
    } else if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X') &&
               std::all_of(word.begin() + 2, word.end(), isHex)) {
        out += "<addr>";
    } else if (isUuid(word) || isHexId(word)) {
        out += "<id>";
    } else {
        for (std::size_t i = 0; i < word.size();) {
            if (!isDigit(word[i])) {
                out.push_back(word[i++]);
                continue;
            }
            while (i < word.size() && isDigit(word[i])) ++i;
            out += "<n>";
        }
    }
}

std::string shown(const std::string& line) {
    if (line.size() <= kMaxShownLine) return line;
    std::string cut;
    cut.reserve(kMaxShownLine + 3);
    cut.append(line, 0, kMaxShownLine).append("...");
    return cut;
}

struct Group {
    std::string severity;
    std::string signature;
    int count = 0;
    std::size_t first = 0;  // index of the first line
};

}  // namespace

std::string_view lineSeverity(std::string_view line) {
    // Faults that only a phrase names.
    const std::string lowered = lower(line);
    if (lowered.find("undefined reference") != std::string::npos ||
        lowered.find("segmentation fault") != std::string::npos)
        return "error";
    std::string_view found;
    for (std::size_t i = 0; i < line.size();) {
        if (!isAlpha(line[i])) {
            ++i;
            continue;
        }
        const std::size_t begin = i;
        while (i < line.size() && isAlpha(line[i])) ++i;
        const std::string_view original = line.substr(begin, i - begin);
        const std::string_view severity = wordSeverity(lower(original), original);
        if (severity.empty()) continue;
        // Flags ("-Werror", "--fail-fast") and tallies ("0 errors", "no
        // warnings") name a severity without reporting one.
        const std::string_view before = std::string_view(lowered).substr(0, begin);
        if (before.ends_with('-') || before.ends_with("0 ") || before.ends_with("no ")) continue;
        if (severity == "error") return "error";
        found = severity;
    }
    return found;
}

std::string lineSignature(std::string_view line) {
    std::string out;
    bool space = false;
    for (std::size_t i = 0; i < line.size();) {
        if (std::isspace(static_cast<unsigned char>(line[i]))) {
            space = !out.empty();
            ++i;
            continue;
        }
        if (space) out.push_back(' ');
        space = false;
        if (!isWordChar(line[i])) {
            out.push_back(line[i++]);
            continue;
        }
        const std::size_t begin = i;
        while (i < line.size() && isWordChar(line[i])) ++i;
        appendWord(line.substr(begin, i - begin), out);
    }
    return out;
}

json triageLog(std::string_view text, const TriageOptions& options) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t end = text.find('\n', begin);
        if (end == std::string_view::npos) end = text.size();
        lines.push_back(withoutEscapes(text.substr(begin, end - begin)));
        begin = end + 1;
    }

    std::vector<Group> groups;
    std::map<std::string, std::size_t> by_key;
    int errors = 0, warnings = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string_view severity = lineSeverity(lines[i]);
        if (severity.empty()) continue;
        (severity == "error" ? errors : warnings)++;
        std::string signature = lineSignature(lines[i]);
        std::string key = std::string(severity) + '\n' + signature;
        auto [at, fresh] = by_key.try_emplace(std::move(key), groups.size());
        if (fresh) groups.push_back({std::string(severity), std::move(signature), 0, i});
        groups[at->second].count++;
    }
    std::stable_sort(groups.begin(), groups.end(), [](const Group& a, const Group& b) {
        if (a.severity != b.severity) return a.severity == "error";
        if (a.count != b.count) return a.count > b.count;
        return a.first < b.first;
    });

    const int context = std::max(0, options.context_lines);
    const std::size_t kept = std::min(groups.size(), static_cast<std::size_t>(std::max(0, options.max_groups)));
    json listed = json::array();
    for (std::size_t rank = 0; rank < kept; ++rank) {
        const Group& group = groups[rank];
        json around = json::array();
        const std::size_t from = group.first > static_cast<std::size_t>(context) ? group.first - context : 0;
        const std::size_t to = std::min(lines.size(), group.first + context + 1);
        for (std::size_t i = from; i < to; ++i) around.push_back({{"line", i + 1}, {"text", shown(lines[i])}});
        listed.push_back({{"rank", rank + 1},
                          {"severity", group.severity},
                          {"signature", shown(group.signature)},
                          {"count", group.count},
                          {"first_line", group.first + 1},
                          {"example", shown(lines[group.first])},
                          {"context", std::move(around)}});
    }
    return {{"lines", lines.size()},
            {"errors", errors},
            {"warnings", warnings},
            {"groups", std::move(listed)},
            {"groups_omitted", groups.size() - kept}};
}

}  // namespace vostra::sandbox
