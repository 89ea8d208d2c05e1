// The built-in NFS responder answering hand-made calls in process: RPC
// errors, handles that cannot be forged or lead outside the export, the
// hidden sidecars, and the network rule; then record marking over a socket.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "nfs/nfs_server.h"
#include "nfs/rpc_message.h"
#include "nfs/xdr.h"
#include "storage/storage_service.h"
#include "tests/support/daemon_process.h"

namespace vostra::data {
namespace {

namespace fs = std::filesystem;

// A call record: header with AUTH_UNIX (uid 0), then the arguments.
std::string call(uint32_t program, uint32_t version, uint32_t procedure,
                 const std::string& arguments = "", uint32_t message_type = 0,
                 uint32_t rpc_version = 2) {
    xdr::Writer credentials;
    credentials.u32(0).opaque("test").u32(0).u32(0).u32(0);
    xdr::Writer out;
    out.u32(42).u32(message_type);
    if (message_type == 0) {
        out.u32(rpc_version).u32(program).u32(version).u32(procedure);
        out.u32(1).opaque(credentials.bytes()).u32(0).u32(0);
    }
    out.bytes() += arguments;
    return std::move(out.bytes());
}

class Responder : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = test::makeTempDir("vostra-nfs-responder");
        fs::create_directories(dir_ + "/export/docs");
        fs::create_directories(dir_ + "/outside");
        std::ofstream(dir_ + "/export/docs/a.txt") << "hello";
        std::ofstream(dir_ + "/export/docs/a.txt.meta") << "{}";
        std::ofstream(dir_ + "/outside/secret") << "secret";
        fs::create_directory_symlink(dir_ + "/outside", dir_ + "/export/door");
        NFSServerConfig config;
        config.export_path = dir_ + "/export";
        ASSERT_TRUE(server_.initialize(config));
    }
    void TearDown() override { test::removeTree(dir_); }

    // The reply after its RPC header: accept status, then the results.
    xdr::Reader results(const std::string& reply) {
        reply_ = reply;
        xdr::Reader in(reply_);
        in.u32();  // xid
        in.u32();  // reply
        in.u32();  // accepted
        in.u32();
        in.skipOpaque(400);  // verifier
        EXPECT_EQ(in.u32(), 0u) << "accept status";
        return in;
    }
    std::string rootHandle() {
        xdr::Writer path;
        path.opaque(dir_ + "/export");
        xdr::Reader in = results(server_.answer(call(rpc::kProgramMount, 3, 1, path.bytes())));
        EXPECT_EQ(in.u32(), 0u);
        return std::string(in.opaque(64));
    }
    // LOOKUP of `name` in `folder`: the status and, on success, the handle.
    std::pair<uint32_t, std::string> lookup(const std::string& folder, const std::string& name) {
        xdr::Writer args;
        args.opaque(folder).opaque(name);
        xdr::Reader in = results(server_.answer(call(rpc::kProgramNfs, 3, 3, args.bytes())));
        const uint32_t status = in.u32();
        return {status, status == 0 ? std::string(in.opaque(64)) : std::string()};
    }
    std::vector<std::string> listing(const std::string& folder) {
        xdr::Writer args;
        args.opaque(folder).u64(0).fixed(std::string(8, '\0')).u32(8192);
        xdr::Reader in = results(server_.answer(call(rpc::kProgramNfs, 3, 16, args.bytes())));
        EXPECT_EQ(in.u32(), 0u);
        if (in.boolean()) in.fixed(84);  // attributes
        in.fixed(8);
        std::vector<std::string> names;
        while (in.ok() && in.boolean()) {
            in.u64();
            names.emplace_back(in.opaque(255));
            in.u64();
        }
        return names;
    }

    std::string dir_;
    std::string reply_;
    NFSServer server_{nullptr, ""};
};

TEST_F(Responder, RpcErrorsOfBothKinds) {
    // Kind 1: not a call, or not RPC version 2: refused with RPC_MISMATCH.
    for (const std::string& bad : {call(rpc::kProgramNfs, 3, 0, "", 1),
                                   call(rpc::kProgramNfs, 3, 0, "", 0, 3)}) {
        const std::string reply = server_.answer(bad);
        xdr::Reader in(reply);
        in.u32();
        EXPECT_EQ(in.u32(), 1u);  // reply
        EXPECT_EQ(in.u32(), 1u);  // denied
        EXPECT_EQ(in.u32(), 0u);  // RPC_MISMATCH
    }
    // Kind 2: NFS version 4, or an unknown program.
    auto acceptStatus = [&](const std::string& record) {
        const std::string reply = server_.answer(record);
        xdr::Reader in(reply);
        for (int i = 0; i < 5; ++i)
            in.u32();
        return in.u32();
    };
    EXPECT_EQ(acceptStatus(call(rpc::kProgramNfs, 4, 0)), 2u);   // PROG_MISMATCH
    EXPECT_EQ(acceptStatus(call(100000, 2, 0)), 1u);             // PROG_UNAVAIL
    EXPECT_EQ(acceptStatus(call(rpc::kProgramNfs, 3, 0)), 0u);
    EXPECT_EQ(acceptStatus(call(rpc::kProgramNfs, 3, 5)), 3u);   // READLINK: PROC_UNAVAIL
    EXPECT_EQ(server_.answer("\0\0\0"), "");                     // not even a header
    EXPECT_EQ(acceptStatus(call(rpc::kProgramNfs, 3, 1, "\0\0\0\x40")), 4u);  // GARBAGE_ARGS
}

TEST_F(Responder, HandlesCannotBeForgedOrLeadOutside) {
    const std::string root = rootHandle();
    ASSERT_EQ(root.size(), 24u);
    // Any other 24 bytes, or the root's with one bit flipped, is bad.
    std::string forged = root;
    forged[10] ^= 1;
    EXPECT_EQ(lookup(forged, "docs").first, 10001u);
    EXPECT_EQ(lookup(std::string(24, 'x'), "docs").first, 10001u);
    EXPECT_EQ(lookup("short", "docs").first, 10001u);

    // ".." at the root is the root; a link is never followed.
    EXPECT_EQ(lookup(root, "..").second, root);
    const auto [door_status, door] = lookup(root, "door");
    ASSERT_EQ(door_status, 0u);
    EXPECT_NE(lookup(door, "secret").first, 0u);
    EXPECT_EQ(lookup(root, "a/../..").first, 2u);

    // A folder below the export may be mounted; one outside may not.
    xdr::Writer outside;
    outside.opaque(dir_ + "/outside");
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramMount, 3, 1, outside.bytes()))).u32(), 13u);
    xdr::Writer below;
    below.opaque(dir_ + "/export/docs/");
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramMount, 3, 1, below.bytes()))).u32(), 0u);

    // A handle whose file is gone is stale; so is one whose path now holds
    // another file.
    const std::string docs = lookup(root, "docs").second;
    const std::string file = lookup(docs, "a.txt").second;
    fs::remove(dir_ + "/export/docs/a.txt");
    xdr::Writer args;
    args.opaque(file);
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramNfs, 3, 1, args.bytes()))).u32(), 70u);
}

TEST_F(Responder, SidecarsAreHiddenAndTravelWithTheirFiles) {
    const std::string root = rootHandle();
    const std::string docs = lookup(root, "docs").second;
    const auto names = listing(docs);
    EXPECT_NE(std::find(names.begin(), names.end(), "a.txt"), names.end());
    EXPECT_EQ(std::find(names.begin(), names.end(), "a.txt.meta"), names.end());
    EXPECT_EQ(lookup(docs, "a.txt.meta").first, 2u);

    xdr::Writer rename;
    rename.opaque(docs).opaque("a.txt").opaque(root).opaque("b.txt");
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramNfs, 3, 14, rename.bytes()))).u32(), 0u);
    EXPECT_TRUE(fs::exists(dir_ + "/export/b.txt.meta"));
    EXPECT_FALSE(fs::exists(dir_ + "/export/docs/a.txt.meta"));

    xdr::Writer create;
    create.opaque(root).opaque("x.meta").u32(0);
    for (int i = 0; i < 6; ++i)
        create.u32(0);
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramNfs, 3, 8, create.bytes()))).u32(), 13u);

    xdr::Writer remove;
    remove.opaque(root).opaque("b.txt");
    EXPECT_EQ(results(server_.answer(call(rpc::kProgramNfs, 3, 12, remove.bytes()))).u32(), 0u);
    EXPECT_FALSE(fs::exists(dir_ + "/export/b.txt.meta"));
}

TEST(NfsNetworks, AllowedNetworksMatchByTextPrefix) {
    NFSServer server(nullptr, "");
    NFSServerConfig config;
    config.export_path = "/";
    config.allowed_networks = {"192.168.1.0/24", "10.0.0.5"};
    ASSERT_TRUE(server.initialize(config));
    EXPECT_TRUE(server.isNetworkAllowed("192.168.1.7"));
    EXPECT_TRUE(server.isNetworkAllowed("192.168.10.7"));  // deliberately a text prefix
    EXPECT_FALSE(server.isNetworkAllowed("192.168.2.7"));
    EXPECT_TRUE(server.isNetworkAllowed("10.0.0.5"));
    EXPECT_FALSE(server.isNetworkAllowed("10.0.0.50"));
}

TEST(NfsKernelExports, ExportsFileAndMountUnitForKernelNfs) {
    const std::string dir = test::makeTempDir("vostra-nfs-exports");
    StorageServiceConfig storage_config;
    storage_config.base_path = dir + "/storage";
    StorageService storage;
    ASSERT_TRUE(storage.initialize(storage_config));
    NFSServer server(&storage, dir + "/storage");
    NFSServerConfig config;
    config.port = 2050;
    config.allowed_networks = {"10.0.0.0/8", "192.168.1.0/24"};
    config.read_only = true;
    ASSERT_TRUE(server.initialize(config));
    const std::string exports = server.generateExportsFile();
    EXPECT_EQ(exports.rfind("# Vostra NFS exports file\n# Generated by vostra-datad\n"
                            "# Copy to /etc/exports and run: exportfs -ra\n\n# Tenant: Default Tenant (default)\n",
                            0),
              0u)
        << exports;
    const std::string options = "(ro,sync,root_squash,anonuid=65534,anongid=65534)";
    EXPECT_NE(exports.find(dir + "/storage/tenants/default 10.0.0.0/8" + options +
                           " 192.168.1.0/24" + options + "\n"),
              std::string::npos)
        << exports;
    EXPECT_TRUE(exports.ends_with("# Root storage path\n" + dir +
                                  "/storage *(rw,sync,no_subtree_check,root_squash)\n"));
    const std::string unit = server.generateMountUnit("w1", "/mnt/vostra/w1");
    EXPECT_NE(unit.find("# Save as: /etc/systemd/system/mnt-vostra-w1.mount\n"), std::string::npos);
    EXPECT_NE(unit.find("What=w1:/\nWhere=/mnt/vostra/w1\nType=nfs\n"
                        "Options=rw,soft,intr,timeo=30,retrans=3,port=2050\n"),
              std::string::npos)
        << unit;
    storage.shutdown();
    test::removeTree(dir);
}

TEST(NfsRecords, FragmentsUpTo65536BytesAreRead) {
    const std::string dir = test::makeTempDir("vostra-nfs-records");
    NFSServer server(nullptr, dir);
    NFSServerConfig config;
    config.port = 0;
    config.bind_address = "127.0.0.1";
    ASSERT_TRUE(server.initialize(config));
    ASSERT_TRUE(server.start());

    auto connect = [&] {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(server.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        timeval wait{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        return fd;
    };
    // A NULL call padded to exactly 65536 bytes: answered.
    std::string record = call(rpc::kProgramNfs, 3, 0);
    record.resize(65536, '\0');
    const uint32_t mark = htonl(0x80000000u | 65536);
    int fd = connect();
    ASSERT_EQ(::send(fd, &mark, 4, 0), 4);
    ASSERT_EQ(::send(fd, record.data(), record.size(), 0), static_cast<ssize_t>(record.size()));
    uint32_t reply_mark = 0;
    EXPECT_EQ(::recv(fd, &reply_mark, 4, MSG_WAITALL), 4);
    ::close(fd);

    // One byte more ends the connection unanswered.
    const uint32_t too_large = htonl(0x80000000u | 65537);
    fd = connect();
    ASSERT_EQ(::send(fd, &too_large, 4, 0), 4);
    char byte;
    EXPECT_EQ(::recv(fd, &byte, 1, 0), 0);
    ::close(fd);
    server.stop();
    test::removeTree(dir);
}

}  // namespace
}  // namespace vostra::data
