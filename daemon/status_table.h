// Choosing an HTTP status for a failure by its kind. Each area keeps one
// table of the kinds whose status does not depend on the route (an unsafe
// path is always the client's fault); every other kind answers the status
// its route gives for failure. Stateless; thread-safe.
#pragma once

#include <span>

#include "common/status.h"

namespace vostra::data {

struct KindStatus {
    ErrorKind kind;
    int status;
};

// The status `table` gives `kind`, else `otherwise`.
constexpr int statusFor(std::span<const KindStatus> table, ErrorKind kind, int otherwise) {
    for (const KindStatus& row : table)
        if (row.kind == kind) return row.status;
    return otherwise;
}

}  // namespace vostra::data
