// Triage of a build or test log: its error and warning lines grouped by a
// signature that ignores what changes between two occurrences of the same
// fault (numbers, paths, addresses, hashes and ids), each group counted,
// shown at its first occurrence with some lines around it, and ranked
// (errors first, then the most frequent, then the earliest). The same text
// always gives the same answer. Pure functions; thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace vostra::sandbox {

struct TriageOptions {
    int context_lines = 2;  // before and after the first occurrence
    int max_groups = 50;    // the rest are counted in "groups_omitted"
};

// "error", "warning", or "" for a line that reports neither.
std::string_view lineSeverity(std::string_view line);

// The line with its variable parts replaced by "<n>", "<path>", "<addr>"
// and "<id>", and runs of white space made one space.
std::string lineSignature(std::string_view line);

// {"lines", "errors", "warnings", "groups": [{"rank", "severity",
// "signature", "count", "first_line", "example", "context": [{"line",
// "text"}]}], "groups_omitted"}. Line numbers start at 1.
nlohmann::json triageLog(std::string_view text, const TriageOptions& options = {});

}  // namespace vostra::sandbox
