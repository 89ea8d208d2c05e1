#include "nfs/nfs_procedures.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <vector>

#include "storage/storage_service.h"

namespace vostra::data {
namespace {

// NFS v3 status codes (RFC 1813).
enum Nfs3Status : uint32_t {
    kOk = 0,
    kPerm = 1,
    kNoEnt = 2,
    kIo = 5,
    kAccess = 13,
    kExist = 17,
    kXDev = 18,
    kNotDir = 20,
    kIsDir = 21,
    kInval = 22,
    kFBig = 27,
    kNoSpace = 28,
    kReadOnly = 30,
    kNameTooLong = 63,
    kNotEmpty = 66,
    kStale = 70,
    kBadHandle = 10001,
    kNotSupported = 10004,
    kServerFault = 10006,
};

enum Procedure : uint32_t {
    kNull = 0,
    kGetAttr = 1,
    kSetAttr = 2,
    kLookup = 3,
    kAccessProc = 4,
    kRead = 6,
    kWrite = 7,
    kCreate = 8,
    kMkdir = 9,
    kRemove = 12,
    kRmdir = 13,
    kRename = 14,
    kReadDir = 16,
    kReadDirPlus = 17,
    kFsStat = 18,
    kFsInfo = 19,
    kPathConf = 20,
    kCommit = 21,
    kFsStatOld = 22,  // what no client sends, answered as FSSTAT
};

constexpr uint32_t kMaxName = 255;
constexpr uint32_t kMaxPath = 1024;
constexpr uint32_t kMaxHandle = 64;
// ACCESS bits that change something.
constexpr uint32_t kAccessChanges = 0x04 | 0x08 | 0x10;

uint32_t statusOf(int error) {
    switch (error) {
        case EPERM: return kPerm;
        case ENOENT: return kNoEnt;
        case EACCES: return kAccess;
        case EEXIST: return kExist;
        case EXDEV: return kXDev;
        case ENOTDIR: return kNotDir;
        case EISDIR: return kIsDir;
        case EINVAL: return kInval;
        case EFBIG: return kFBig;
        case ENOSPC:
        case EDQUOT: return kNoSpace;
        case EROFS: return kReadOnly;
        case ENAMETOOLONG: return kNameTooLong;
        case ENOTEMPTY: return kNotEmpty;
        case ELOOP: return kAccess;  // a symbolic link on the way: refused, never followed
        default: return kIo;
    }
}

uint32_t fileType(mode_t mode) {
    if (S_ISREG(mode)) return 1;
    if (S_ISDIR(mode)) return 2;
    if (S_ISBLK(mode)) return 3;
    if (S_ISCHR(mode)) return 4;
    if (S_ISLNK(mode)) return 5;
    if (S_ISSOCK(mode)) return 6;
    return 7;  // FIFO
}

void putTime(xdr::Writer& out, const timespec& t) {
    out.u32(static_cast<uint32_t>(t.tv_sec)).u32(static_cast<uint32_t>(t.tv_nsec));
}

void putAttributes(xdr::Writer& out, const struct stat& st) {
    out.u32(fileType(st.st_mode))
        .u32(st.st_mode & 07777)
        .u32(static_cast<uint32_t>(st.st_nlink))
        .u32(st.st_uid)
        .u32(st.st_gid)
        .u64(static_cast<uint64_t>(st.st_size))
        .u64(static_cast<uint64_t>(st.st_blocks) * 512)
        .u32(major(st.st_rdev))
        .u32(minor(st.st_rdev))
        .u64(static_cast<uint64_t>(st.st_dev))
        .u64(static_cast<uint64_t>(st.st_ino));
    putTime(out, st.st_atim);
    putTime(out, st.st_mtim);
    putTime(out, st.st_ctim);
}

void putPostOp(xdr::Writer& out, const std::optional<struct stat>& st) {
    out.boolean(st.has_value());
    if (st) putAttributes(out, *st);
}

// wcc_data without the attributes before the change, which clients do not need.
void putWcc(xdr::Writer& out, const std::optional<struct stat>& after) {
    out.boolean(false);
    putPostOp(out, after);
}

// A name a client may use inside a folder.
uint32_t nameProblem(std::string_view name) {
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos)
        return kInval;
    if (name.size() > kMaxName) return kNameTooLong;
    return kOk;
}

std::string joinPath(const std::string& folder, std::string_view name) {
    return folder.empty() ? std::string(name) : folder + "/" + std::string(name);
}

struct FdGuard {
    int fd = -1;
    ~FdGuard() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

// One call in progress: its arguments, its reply, and the file helpers.
class NfsProcedures::Call {
public:
    Call(NfsProcedures& owner, const rpc::Call& call)
        : owner_(owner), call_(call), in_(call.arguments), out_(rpc::successReply(call.xid)) {}

    std::string garbage() const {
        return rpc::acceptErrorReply(call_.xid, rpc::AcceptError::GarbageArguments);
    }
    std::string finish() { return in_.ok() ? std::move(out_.bytes()) : garbage(); }

    // `rel` below the export root opened with `flags`; -1 with errno set.
    int open(const std::string& rel, int flags) const {
        open_how how{};
        how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        const char* path = rel.empty() ? "." : rel.c_str();
        return static_cast<int>(::syscall(SYS_openat2, owner_.root_fd_, path, &how, sizeof how));
    }

    std::optional<struct stat> statOf(const std::string& rel) const {
        FdGuard fd{open(rel, O_PATH)};
        struct stat st {};
        if (fd.fd < 0 || ::fstat(fd.fd, &st) != 0) return std::nullopt;
        return st;
    }

    // The file a handle argument names: its path and status, or the NFS
    // status that says why not.
    uint32_t resolveHandle(std::string& rel, struct stat& st) {
        const std::string_view handle = in_.opaque(kMaxHandle);
        if (!in_.ok()) return kBadHandle;
        switch (owner_.handles_.resolve(handle, rel)) {
            case NfsFileHandles::Problem::Bad: return kBadHandle;
            case NfsFileHandles::Problem::Stale: return kStale;
            case NfsFileHandles::Problem::None: break;
        }
        const auto found = statOf(rel);
        if (!found || !NfsFileHandles::names(handle, *found)) return kStale;
        st = *found;
        return kOk;
    }

    std::string handleOf(const std::string& rel, const struct stat& st) {
        return owner_.handles_.handleFor(rel, st);
    }

    bool readOnly() const { return owner_.options_.read_only; }

    // Who a new file should belong to: the caller, or the anonymous user
    // for a squashed root.
    void giveToCaller(int fd) const {
        if (!call_.uid) return;
        uint32_t uid = *call_.uid, gid = call_.gid.value_or(*call_.uid);
        if (uid == 0 && owner_.options_.root_squash) {
            uid = owner_.options_.anonymous_uid;
            gid = owner_.options_.anonymous_gid;
        }
        if (::fchown(fd, uid, gid) != 0) {
            // Not root: the file stays the daemon's.
        }
    }

    NfsProcedures& owner_;
    const rpc::Call& call_;
    xdr::Reader in_;
    xdr::Writer out_;
};

namespace {

// sattr3: what SETATTR, CREATE and MKDIR may set.
struct NewAttributes {
    std::optional<uint32_t> mode, uid, gid;
    std::optional<uint64_t> size;
    int atime_how = 0, mtime_how = 0;  // 0 keep, 1 server time, 2 client time
    timespec atime{}, mtime{};
};

NewAttributes readAttributes(xdr::Reader& in) {
    NewAttributes a;
    if (in.boolean()) a.mode = in.u32();
    if (in.boolean()) a.uid = in.u32();
    if (in.boolean()) a.gid = in.u32();
    if (in.boolean()) a.size = in.u64();
    a.atime_how = static_cast<int>(in.u32());
    if (a.atime_how == 2) a.atime = {static_cast<time_t>(in.u32()), static_cast<long>(in.u32())};
    a.mtime_how = static_cast<int>(in.u32());
    if (a.mtime_how == 2) a.mtime = {static_cast<time_t>(in.u32()), static_cast<long>(in.u32())};
    return a;
}

// Applies `a` to the open file; an errno value, or 0.
int applyAttributes(int fd, const NewAttributes& a) {
    if (a.mode && ::fchmod(fd, *a.mode & 07777) != 0) return errno;
    if ((a.uid || a.gid) &&
        ::fchown(fd, a.uid ? *a.uid : static_cast<uid_t>(-1), a.gid ? *a.gid : static_cast<gid_t>(-1)) != 0)
        return errno;
    if (a.size && ::ftruncate(fd, static_cast<off_t>(*a.size)) != 0) return errno;
    if (a.atime_how || a.mtime_how) {
        timespec times[2];
        times[0] = a.atime_how == 2 ? a.atime : timespec{0, a.atime_how == 1 ? UTIME_NOW : UTIME_OMIT};
        times[1] = a.mtime_how == 2 ? a.mtime : timespec{0, a.mtime_how == 1 ? UTIME_NOW : UTIME_OMIT};
        if (::futimens(fd, times) != 0) return errno;
    }
    return 0;
}

}  // namespace

NfsProcedures::NfsProcedures(NfsExportOptions options) : options_(std::move(options)) {
    root_fd_ = ::open(options_.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    // Changes with every start, so that clients resend what they had not
    // yet committed to a server that may have lost it.
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    std::memcpy(write_verifier_, &now, sizeof write_verifier_);
}

NfsProcedures::~NfsProcedures() {
    if (root_fd_ >= 0) ::close(root_fd_);
}

std::string NfsProcedures::mount(const rpc::Call& rpc_call) {
    Call call(*this, rpc_call);
    xdr::Writer& out = call.out_;
    switch (rpc_call.procedure) {
        case 0: return call.finish();
        case 1: {  // MNT: the export folder or any folder below it
            std::string path(call.in_.opaque(kMaxPath));
            if (!call.in_.ok()) return call.garbage();
            while (path.size() > 1 && path.ends_with('/'))
                path.pop_back();
            std::string root = options_.path;
            while (root.size() > 1 && root.ends_with('/'))
                root.pop_back();
            std::string rel;
            if (path == root) {
                rel.clear();
            } else if (path.starts_with(root + "/") || root == "/") {
                rel = path.substr(root == "/" ? 1 : root.size() + 1);
            } else {
                out.u32(13);  // MNT3ERR_ACCES: not exported
                return call.finish();
            }
            const auto st = call.statOf(rel);
            if (!st) {
                out.u32(errno == ENOENT ? 2 : 13);
                return call.finish();
            }
            if (!S_ISDIR(st->st_mode)) {
                out.u32(20);  // MNT3ERR_NOTDIR
                return call.finish();
            }
            out.u32(0).opaque(call.handleOf(rel, *st));
            out.u32(2).u32(1).u32(0);  // AUTH_UNIX, AUTH_NONE
            return call.finish();
        }
        case 5: {  // EXPORT
            out.boolean(true).opaque(options_.path);
            out.boolean(true).opaque(options_.groups.empty() ? "*" : options_.groups);
            out.boolean(false);
            out.boolean(false);
            return call.finish();
        }
        default:
            return rpc::acceptErrorReply(rpc_call.xid, rpc::AcceptError::ProcedureUnavailable);
    }
}

std::string NfsProcedures::nfs(const rpc::Call& rpc_call) {
    Call call(*this, rpc_call);
    xdr::Reader& in = call.in_;
    xdr::Writer& out = call.out_;
    const uint32_t procedure = rpc_call.procedure;
    if (procedure == kNull) return call.finish();
    switch (procedure) {
        case kGetAttr: case kSetAttr: case kLookup: case kAccessProc: case kRead: case kWrite:
        case kCreate: case kMkdir: case kRemove: case kRmdir: case kRename: case kReadDir:
        case kReadDirPlus: case kFsStat: case kFsInfo: case kPathConf: case kCommit:
        case kFsStatOld: break;
        default: return rpc::acceptErrorReply(rpc_call.xid, rpc::AcceptError::ProcedureUnavailable);
    }

    std::string rel;
    struct stat st {};
    const uint32_t resolved = call.resolveHandle(rel, st);
    if (!in.ok()) return call.garbage();
    const bool changes = procedure == kSetAttr || procedure == kWrite || procedure == kCreate ||
                         procedure == kMkdir || procedure == kRemove || procedure == kRmdir ||
                         procedure == kRename || procedure == kCommit;
    // A failure before anything was done: the status and empty attributes
    // in the shape each procedure's failure takes.
    auto fail = [&](uint32_t status) {
        out.u32(status);
        switch (procedure) {
            case kSetAttr:
            case kWrite:
            case kCreate:
            case kMkdir:
            case kRemove:
            case kRmdir:
            case kCommit: out.boolean(false).boolean(false); break;
            case kRename: out.boolean(false).boolean(false).boolean(false).boolean(false); break;
            case kGetAttr: break;
            case kLookup:
            default: out.boolean(false); break;
        }
        return std::move(out.bytes());
    };
    if (resolved != kOk) return fail(resolved);
    if (changes && options_.read_only) return fail(kReadOnly);

    switch (procedure) {
        case kGetAttr:
            out.u32(kOk);
            putAttributes(out, st);
            return call.finish();

        case kSetAttr: {
            const NewAttributes attributes = readAttributes(in);
            if (in.boolean()) in.fixed(8);  // guard: not checked
            if (!in.ok()) return call.garbage();
            const bool writable = S_ISREG(st.st_mode) && attributes.size;
            FdGuard fd{call.open(rel, (S_ISDIR(st.st_mode) ? O_RDONLY | O_DIRECTORY : 0) |
                                          (writable ? O_WRONLY : O_RDONLY))};
            if (fd.fd < 0) return fail(statusOf(errno));
            if (const int error = applyAttributes(fd.fd, attributes); error != 0)
                return fail(statusOf(error));
            out.u32(kOk);
            putWcc(out, call.statOf(rel));
            return call.finish();
        }

        case kLookup: {
            const std::string name(in.opaque(kMaxName + 1));
            if (!in.ok()) return call.garbage();
            if (!S_ISDIR(st.st_mode)) return fail(kNotDir);
            std::string target;
            if (name == ".") {
                target = rel;
            } else if (name == "..") {
                // Never above the export root.
                const std::size_t slash = rel.rfind('/');
                target = slash == std::string::npos ? "" : rel.substr(0, slash);
            } else if (const uint32_t problem = nameProblem(name); problem != kOk) {
                out.u32(problem == kInval ? kNoEnt : problem);
                putPostOp(out, st);
                return call.finish();
            } else if (StorageService::isReservedPath(name)) {
                out.u32(kNoEnt);
                putPostOp(out, st);
                return call.finish();
            } else {
                target = joinPath(rel, name);
            }
            const auto found = call.statOf(target);
            if (!found) {
                out.u32(statusOf(errno));
                putPostOp(out, st);
                return call.finish();
            }
            out.u32(kOk).opaque(call.handleOf(target, *found));
            putPostOp(out, found);
            putPostOp(out, st);
            return call.finish();
        }

        case kAccessProc: {
            uint32_t wanted = in.u32();
            if (!in.ok()) return call.garbage();
            if (options_.read_only) wanted &= ~kAccessChanges;
            out.u32(kOk);
            putPostOp(out, st);
            out.u32(wanted);
            return call.finish();
        }

        case kRead: {
            const uint64_t offset = in.u64();
            const uint32_t count = std::min(in.u32(), kMaxRead);
            if (!in.ok()) return call.garbage();
            if (S_ISDIR(st.st_mode)) return fail(kIsDir);
            if (!S_ISREG(st.st_mode)) return fail(kInval);
            FdGuard fd{call.open(rel, O_RDONLY)};
            if (fd.fd < 0) return fail(statusOf(errno));
            std::string data(count, '\0');
            std::size_t got = 0;
            while (got < count) {
                const ssize_t n = ::pread(fd.fd, data.data() + got, count - got,
                                          static_cast<off_t>(offset + got));
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) return fail(statusOf(errno));
                if (n == 0) break;
                got += static_cast<std::size_t>(n);
            }
            data.resize(got);
            struct stat after {};
            if (::fstat(fd.fd, &after) != 0) after = st;
            reads.fetch_add(1);
            bytes_read.fetch_add(got);
            out.u32(kOk);
            putPostOp(out, after);
            out.u32(static_cast<uint32_t>(got))
                .boolean(offset + got >= static_cast<uint64_t>(after.st_size))
                .opaque(data);
            return call.finish();
        }

        case kWrite: {
            const uint64_t offset = in.u64();
            const uint32_t count = in.u32();
            const uint32_t stable = in.u32();
            const std::string_view data = in.opaque(kMaxWrite);
            if (!in.ok() || count > data.size()) return call.garbage();
            if (!S_ISREG(st.st_mode)) return fail(S_ISDIR(st.st_mode) ? kIsDir : kInval);
            FdGuard fd{call.open(rel, O_WRONLY)};
            if (fd.fd < 0) return fail(statusOf(errno));
            std::size_t put = 0;
            while (put < count) {
                const ssize_t n = ::pwrite(fd.fd, data.data() + put, count - put,
                                           static_cast<off_t>(offset + put));
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) return fail(statusOf(errno));
                put += static_cast<std::size_t>(n);
            }
            // Unstable writes are committed later (COMMIT); the others now.
            const bool synced = stable != 0 && ::fdatasync(fd.fd) == 0;
            writes.fetch_add(1);
            bytes_written.fetch_add(put);
            out.u32(kOk);
            putWcc(out, call.statOf(rel));
            out.u32(static_cast<uint32_t>(put)).u32(synced ? 2 : 0).fixed(
                std::string_view(write_verifier_, sizeof write_verifier_));
            return call.finish();
        }

        case kCommit: {
            in.u64();
            in.u32();
            if (!in.ok()) return call.garbage();
            FdGuard fd{call.open(rel, S_ISDIR(st.st_mode) ? O_RDONLY | O_DIRECTORY : O_RDONLY)};
            if (fd.fd < 0 || ::fsync(fd.fd) != 0) return fail(statusOf(errno));
            out.u32(kOk);
            putWcc(out, call.statOf(rel));
            out.fixed(std::string_view(write_verifier_, sizeof write_verifier_));
            return call.finish();
        }

        case kCreate:
        case kMkdir: {
            const std::string name(in.opaque(kMaxName + 1));
            NewAttributes attributes;
            int create_mode = 0;  // 0 unchecked, 1 guarded, 2 exclusive
            if (procedure == kCreate) {
                create_mode = static_cast<int>(in.u32());
                if (create_mode == 2)
                    in.fixed(8);  // verifier
                else
                    attributes = readAttributes(in);
            } else {
                attributes = readAttributes(in);
            }
            if (!in.ok()) return call.garbage();
            if (!S_ISDIR(st.st_mode)) return fail(kNotDir);
            if (const uint32_t problem = nameProblem(name); problem != kOk) return fail(problem);
            if (StorageService::isReservedPath(name)) return fail(kAccess);
            FdGuard folder{call.open(rel, O_RDONLY | O_DIRECTORY)};
            if (folder.fd < 0) return fail(statusOf(errno));
            const mode_t mode = attributes.mode ? (*attributes.mode & 07777)
                                                : (procedure == kMkdir ? 0755 : 0644);
            FdGuard made;
            if (procedure == kMkdir) {
                if (::mkdirat(folder.fd, name.c_str(), mode) != 0) return fail(statusOf(errno));
                made.fd = ::openat(folder.fd, name.c_str(),
                                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            } else {
                const int exclusive = create_mode == 0 ? 0 : O_EXCL;
                made.fd = ::openat(folder.fd, name.c_str(),
                                   O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | exclusive, mode);
            }
            if (made.fd < 0) return fail(statusOf(errno));
            call.giveToCaller(made.fd);
            attributes.mode.reset();  // already applied at creation
            if (const int error = applyAttributes(made.fd, attributes); error != 0)
                return fail(statusOf(error));
            const std::string target = joinPath(rel, name);
            struct stat made_st {};
            if (::fstat(made.fd, &made_st) != 0) return fail(statusOf(errno));
            out.u32(kOk).boolean(true).opaque(call.handleOf(target, made_st));
            putPostOp(out, made_st);
            putWcc(out, call.statOf(rel));
            return call.finish();
        }

        case kRemove:
        case kRmdir: {
            const std::string name(in.opaque(kMaxName + 1));
            if (!in.ok()) return call.garbage();
            if (!S_ISDIR(st.st_mode)) return fail(kNotDir);
            if (const uint32_t problem = nameProblem(name); problem != kOk) return fail(problem);
            if (StorageService::isReservedPath(name)) return fail(kNoEnt);
            FdGuard folder{call.open(rel, O_RDONLY | O_DIRECTORY)};
            if (folder.fd < 0) return fail(statusOf(errno));
            if (::unlinkat(folder.fd, name.c_str(), procedure == kRmdir ? AT_REMOVEDIR : 0) != 0)
                return fail(statusOf(errno));
            if (procedure == kRemove) ::unlinkat(folder.fd, (name + ".meta").c_str(), 0);
            handles_.moved(joinPath(rel, name), "");
            out.u32(kOk);
            putWcc(out, call.statOf(rel));
            return call.finish();
        }

        case kRename: {
            const std::string from_name(in.opaque(kMaxName + 1));
            std::string to_rel;
            struct stat to_st {};
            const uint32_t to_resolved = call.resolveHandle(to_rel, to_st);
            const std::string to_name(in.opaque(kMaxName + 1));
            if (!in.ok()) return call.garbage();
            if (to_resolved != kOk) return fail(to_resolved);
            if (!S_ISDIR(st.st_mode) || !S_ISDIR(to_st.st_mode)) return fail(kNotDir);
            for (const std::string* name : {&from_name, &to_name}) {
                if (const uint32_t problem = nameProblem(*name); problem != kOk) return fail(problem);
                if (StorageService::isReservedPath(*name)) return fail(kAccess);
            }
            FdGuard from{call.open(rel, O_RDONLY | O_DIRECTORY)};
            FdGuard to{call.open(to_rel, O_RDONLY | O_DIRECTORY)};
            if (from.fd < 0 || to.fd < 0) return fail(statusOf(errno));
            if (::renameat(from.fd, from_name.c_str(), to.fd, to_name.c_str()) != 0)
                return fail(statusOf(errno));
            // The sidecar goes with its file; a stale one at the target goes.
            const std::string from_meta = from_name + ".meta", to_meta = to_name + ".meta";
            if (::renameat(from.fd, from_meta.c_str(), to.fd, to_meta.c_str()) != 0)
                ::unlinkat(to.fd, to_meta.c_str(), 0);
            handles_.moved(joinPath(rel, from_name), joinPath(to_rel, to_name));
            out.u32(kOk);
            putWcc(out, call.statOf(rel));
            putWcc(out, call.statOf(to_rel));
            return call.finish();
        }

        case kReadDir: {
            const uint64_t cookie = in.u64();
            in.fixed(8);  // cookie verifier: listings are read afresh each time
            const uint32_t count = in.u32();
            if (!in.ok()) return call.garbage();
            if (!S_ISDIR(st.st_mode)) return fail(kNotDir);
            FdGuard fd{call.open(rel, O_RDONLY | O_DIRECTORY)};
            if (fd.fd < 0) return fail(statusOf(errno));
            DIR* dir = ::fdopendir(fd.fd);
            if (!dir) return fail(statusOf(errno));
            fd.fd = -1;  // the stream owns it now
            out.u32(kOk);
            putPostOp(out, st);
            out.fixed(std::string_view("\0\0\0\0\0\0\0\0", 8));
            // Room for the entries: what the client asked for, less the
            // fixed part of the reply.
            const std::size_t budget = std::max<uint32_t>(count, 1024);
            const std::size_t start = out.size();
            uint64_t position = 0;
            bool eof = true;
            while (const dirent* entry = ::readdir(dir)) {
                const std::string_view name = entry->d_name;
                if (StorageService::isReservedPath(name)) continue;
                ++position;
                if (position <= cookie) continue;
                const std::size_t entry_size = 4 + 8 + 4 + (name.size() + 3) / 4 * 4 + 8;
                if (out.size() - start + entry_size + 8 > budget - 128) {
                    eof = false;
                    break;
                }
                out.boolean(true).u64(entry->d_ino).opaque(name).u64(position);
            }
            ::closedir(dir);
            out.boolean(false).boolean(eof);
            return call.finish();
        }

        case kReadDirPlus:
            out.u32(kNotSupported).boolean(false);
            return call.finish();

        case kFsStat:
        case kFsStatOld: {
            struct statvfs fs {};
            if (::fstatvfs(root_fd_, &fs) != 0) return fail(statusOf(errno));
            const uint64_t unit = fs.f_frsize;
            out.u32(kOk);
            putPostOp(out, st);
            out.u64(fs.f_blocks * unit)
                .u64(fs.f_bfree * unit)
                .u64(fs.f_bavail * unit)
                .u64(fs.f_files)
                .u64(fs.f_ffree)
                .u64(fs.f_favail)
                .u32(0);
            return call.finish();
        }

        case kFsInfo:
            out.u32(kOk);
            putPostOp(out, st);
            out.u32(kMaxRead).u32(kMaxRead).u32(4096);
            out.u32(kMaxWrite).u32(kMaxWrite).u32(4096);
            out.u32(65536)                     // preferred READDIR size
                .u64(0x7fffffffffffffffULL)    // largest file
                .u32(0).u32(1)                 // time resolution: 1 ns
                .u32(0x1 | 0x2 | 0x8 | 0x10);  // links, symlinks, homogeneous, settable times
            return call.finish();

        case kPathConf:
            out.u32(kOk);
            putPostOp(out, st);
            out.u32(32000).u32(kMaxName).boolean(true).boolean(true).boolean(false).boolean(true);
            return call.finish();

        default:
            return rpc::acceptErrorReply(rpc_call.xid, rpc::AcceptError::ProcedureUnavailable);
    }
}

}  // namespace vostra::data
