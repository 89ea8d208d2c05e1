// Console logging for one component: progress lines to stdout, failures to
// stderr, every line prefixed with the component's bracketed name. Lines from
// concurrent threads never interleave. Thread-safe; no state besides the prefix.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

namespace vostra {

class Log {
public:
    explicit constexpr Log(std::string_view prefix) : prefix_(prefix) {}

    template <typename... Parts>
    void info(const Parts&... parts) const {
        write(false, compose(parts...));
    }
    template <typename... Parts>
    void error(const Parts&... parts) const {
        write(true, compose(parts...));
    }

private:
    template <typename... Parts>
    std::string compose(const Parts&... parts) const {
        std::ostringstream line;
        line << prefix_;
        (line << ... << parts);
        line << '\n';
        return line.str();
    }
    static void write(bool to_stderr, const std::string& line);

    std::string_view prefix_;
};

}  // namespace vostra
