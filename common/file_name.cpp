#include "common/file_name.h"

namespace vostra {

std::string fileNameProblem(std::string_view name) {
    if (name.empty()) return "the id is empty";
    // Any "..", not only the whole name: one short rule that can be checked
    // by eye, and no id ever looks like a step up in a log or a listing.
    if (name == "." || name.find("..") != std::string_view::npos) return "\".\" and \"..\" are not allowed";
    if (name.find('/') != std::string_view::npos) return "\"/\" is not allowed";
    if (name.find('\0') != std::string_view::npos) return "NUL is not allowed";
    return {};
}

}  // namespace vostra
