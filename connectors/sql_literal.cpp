#include "connectors/sql_literal.h"

namespace vostra::data {

std::string quoteSqlLiteral(const std::string& text, bool double_backslashes) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('\'');
    for (char c : text) {
        if (c == '\'' || (double_backslashes && c == '\\')) out.push_back(c);
        out.push_back(c);
    }
    out.push_back('\'');
    return out;
}

}  // namespace vostra::data
