// ONC RPC (RFC 5531) calls and replies as the built-in NFS responder needs
// them: the call header with its AUTH_UNIX credentials, and the accepted,
// refused and error replies. Pure functions over byte strings; thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "nfs/xdr.h"

namespace vostra::data::rpc {

constexpr uint32_t kProgramNfs = 100003;
constexpr uint32_t kProgramMount = 100005;

struct Call {
    uint32_t xid = 0;
    uint32_t message_type = 0;  // 0: call
    uint32_t rpc_version = 0;   // 2
    uint32_t program = 0;
    uint32_t version = 0;
    uint32_t procedure = 0;
    std::optional<uint32_t> uid;  // from AUTH_UNIX credentials
    std::optional<uint32_t> gid;
    std::string_view arguments;   // the bytes after the verifier
};

// The call header of one record; nothing when the record is too short or
// its credentials or verifier are malformed (the caller drops the record).
std::optional<Call> parseCall(std::string_view record);

// A reply accepted with SUCCESS: header written, results to follow.
xdr::Writer successReply(uint32_t xid);

// Accepted, but not carried out: PROG_UNAVAIL (1), PROG_MISMATCH (2, with
// the supported versions 3 to 3), PROC_UNAVAIL (3) or GARBAGE_ARGS (4).
enum class AcceptError : uint32_t {
    ProgramUnavailable = 1,
    ProgramMismatch = 2,
    ProcedureUnavailable = 3,
    GarbageArguments = 4,
};
std::string acceptErrorReply(uint32_t xid, AcceptError error);

// Refused: RPC_MISMATCH, supporting version 2 only (not a call, or not
// RPC version 2).
std::string rpcMismatchReply(uint32_t xid);

}  // namespace vostra::data::rpc
