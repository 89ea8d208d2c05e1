// The MOUNT v3 and NFS v3 procedures of the built-in responder, over one
// exported folder: each call's arguments are decoded, carried out on the
// files and answered in standard XDR. Owned by NFSServer.
//
// Confinement: every file is reached from a descriptor of the export root
// with openat2 and RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS, and names from
// clients may not hold "/" nor be "." or ".." (LOOKUP of ".." walks up, but
// never above the root), so no handle, name or link leads outside the
// export. The storage backend's sidecars (".meta") and unfinished writes
// are hidden from listings and cannot be created; removing or renaming a
// file takes its sidecar along.
//
// Thread-safety: calls may run on any threads at once; the handle table
// guards itself, and the counters are atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "nfs/nfs_file_handles.h"
#include "nfs/rpc_message.h"

namespace vostra::data {

struct NfsExportOptions {
    std::string path;  // absolute folder served
    bool read_only = false;
    bool root_squash = true;
    uint32_t anonymous_uid = 65534;
    uint32_t anonymous_gid = 65534;
    std::string groups;  // what EXPORT names as the allowed clients ("*" for all)
};

class NfsProcedures {
public:
    // The largest WRITE a client is told to send: with its RPC header it
    // fits one 65536-byte fragment.
    static constexpr uint32_t kMaxWrite = 61440;
    static constexpr uint32_t kMaxRead = 1 << 20;

    explicit NfsProcedures(NfsExportOptions options);
    ~NfsProcedures();
    NfsProcedures(const NfsProcedures&) = delete;
    NfsProcedures& operator=(const NfsProcedures&) = delete;

    // False when the export folder could not be opened.
    bool ready() const { return root_fd_ >= 0; }
    const NfsExportOptions& options() const { return options_; }

    // The whole reply record body for a call of program MOUNT (version 3)
    // or NFS (version 3).
    std::string mount(const rpc::Call& call);
    std::string nfs(const rpc::Call& call);

    std::atomic<uint64_t> reads{0};
    std::atomic<uint64_t> writes{0};
    std::atomic<uint64_t> bytes_read{0};
    std::atomic<uint64_t> bytes_written{0};

private:
    class Call;

    const NfsExportOptions options_;
    int root_fd_ = -1;
    NfsFileHandles handles_;
    char write_verifier_[8];
};

}  // namespace vostra::data
