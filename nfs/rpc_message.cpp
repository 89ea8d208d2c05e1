#include "nfs/rpc_message.h"

namespace vostra::data::rpc {
namespace {

constexpr uint32_t kReply = 1;
constexpr uint32_t kAccepted = 0;
constexpr uint32_t kDenied = 1;
constexpr uint32_t kAuthNone = 0;
constexpr uint32_t kAuthUnix = 1;
// RFC 5531 bounds: 400 bytes of credentials or verifier body.
constexpr uint32_t kMaxAuthBody = 400;

xdr::Writer acceptedHeader(uint32_t xid) {
    xdr::Writer out;
    out.u32(xid).u32(kReply).u32(kAccepted).u32(kAuthNone).u32(0);
    return out;
}

}  // namespace

std::optional<Call> parseCall(std::string_view record) {
    xdr::Reader in(record);
    Call call;
    call.xid = in.u32();
    call.message_type = in.u32();
    if (!in.ok()) return std::nullopt;
    // Anything but a call is answered with a refusal; the rest is not read.
    if (call.message_type != 0) return call;
    call.rpc_version = in.u32();
    call.program = in.u32();
    call.version = in.u32();
    call.procedure = in.u32();
    const uint32_t flavor = in.u32();
    const std::string_view credentials = in.opaque(kMaxAuthBody);
    in.u32();  // verifier flavor
    in.skipOpaque(kMaxAuthBody);
    if (!in.ok()) return std::nullopt;
    if (flavor == kAuthUnix) {
        xdr::Reader unix_auth(credentials);
        unix_auth.u32();              // stamp
        unix_auth.skipOpaque(255);    // machine name
        const uint32_t uid = unix_auth.u32();
        const uint32_t gid = unix_auth.u32();
        if (unix_auth.ok()) {
            call.uid = uid;
            call.gid = gid;
        }
    }
    call.arguments = record.substr(record.size() - in.remaining());
    return call;
}

xdr::Writer successReply(uint32_t xid) {
    xdr::Writer out = acceptedHeader(xid);
    out.u32(0);
    return out;
}

std::string acceptErrorReply(uint32_t xid, AcceptError error) {
    xdr::Writer out = acceptedHeader(xid);
    out.u32(static_cast<uint32_t>(error));
    if (error == AcceptError::ProgramMismatch) out.u32(3).u32(3);
    return std::move(out.bytes());
}

std::string rpcMismatchReply(uint32_t xid) {
    xdr::Writer out;
    out.u32(xid).u32(kReply).u32(kDenied).u32(0 /* RPC_MISMATCH */).u32(2).u32(2);
    return std::move(out.bytes());
}

}  // namespace vostra::data::rpc
