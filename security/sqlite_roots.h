// Which files a SQLite data source may open. The daemon usually runs as
// root, so without a rule a client could register another tenant's
// database, /etc/passwd or the daemon's own key files as a "source" and read
// them through queries. Paths are compared after following every link, so a
// link inside an allowed folder cannot point out of it. Pure functions.
#pragma once

#include <string>
#include <vector>

namespace vostra::security {

struct SqlitePathRules {
    std::vector<std::string> roots;            // empty: any folder
    std::vector<std::string> protected_paths;  // files and folders never opened
};

// Empty when `path` may be opened ("" and ":memory:" always may), else the
// reason, naming the rule.
std::string sqlitePathProblem(const std::string& path, const SqlitePathRules& rules);

}  // namespace vostra::security
