#include "common/log.h"

#include <iostream>
#include <mutex>

namespace vostra {

void Log::write(bool to_stderr, const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::ostream& out = to_stderr ? std::cerr : std::cout;
    out << line;
    out.flush();
}

}  // namespace vostra
