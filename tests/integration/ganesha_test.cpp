// Real NFS-Ganesha as the judge of the generated configuration: in a
// network namespace of its own (so that its ports and rpcbind touch
// nothing of the machine's), Ganesha must start from the generator's text
// without a configuration error, and serve a tenant export to a real
// client. Needs root, "ip netns", rpcbind and ganesha.nfsd; skips without.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "nfs/ganesha_config_generator.h"
#include "storage/storage_service.h"
#include "tests/support/daemon_process.h"

namespace vostra::test {
namespace {

namespace fs = std::filesystem;

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The lines of Ganesha's log that say the configuration was not understood;
// the notices Ganesha 4.3 gives for the three settings the generator must
// keep (two unknown buffer sizes, the moved worker count) are not counted.
std::vector<std::string> configurationErrors(const std::string& log) {
    std::vector<std::string> errors;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const bool bad = line.find("config_errs_to_log") != std::string::npos ||
                         line.find("ganesha_yyerror") != std::string::npos ||
                         line.find("No export entries found") != std::string::npos ||
                         line.find("FATAL") != std::string::npos;
        const bool expected = line.find("Unknown parameter (max_recv_buffer_size)") != std::string::npos ||
                              line.find("Unknown parameter (max_send_buffer_size)") != std::string::npos ||
                              line.find("Deprecated parameter (Nb_Worker)") != std::string::npos;
        if (bad && !expected) errors.push_back(line);
    }
    return errors;
}

class Ganesha : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "network namespaces need root";
        if (!fs::exists("/usr/bin/ganesha.nfsd") || !fs::exists("/usr/sbin/rpcbind"))
            GTEST_SKIP() << "nfs-ganesha or rpcbind is not installed";
        namespace_ = "vostra-ganesha-" + std::to_string(getpid());
        int status = -1;
        runCommand("ip netns add " + namespace_ + " 2>&1", &status);
        if (status != 0) GTEST_SKIP() << "network namespaces cannot be made here";
        made_namespace_ = true;
        // Ganesha resolves its bind address: give the namespace one.
        runCommand(inside("ip link set lo up") + " && " +
                       inside("ip addr add 10.255.255.1/32 dev lo"),
                   &status);
        ASSERT_EQ(status, 0);
        dir_ = makeTempDir("vostra-ganesha");
        // Squashed clients act as nobody, who must be able to walk in.
        fs::permissions(dir_, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
    }
    void TearDown() override {
        for (int pid : {ganesha_pid_, rpcbind_pid_}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGTERM);
            eventually([&] { return ::kill(pid, 0) != 0; }, 10000);
        }
        if (made_namespace_) runCommand("ip netns del " + namespace_ + " 2>&1");
        if (!dir_.empty()) removeTree(dir_);
    }
    std::string inside(const std::string& command) const {
        return "ip netns exec " + namespace_ + " " + command;
    }
    // Starts `command` in the namespace in the background; its process id.
    int launch(const std::string& command, const std::string& log) {
        return std::atoi(runCommand(inside(command) + " >" + log + " 2>&1 & echo $!").c_str());
    }

    std::string namespace_;
    bool made_namespace_ = false;
    std::string dir_;
    int ganesha_pid_ = 0;
    int rpcbind_pid_ = 0;
};

TEST_F(Ganesha, StartsFromTheGeneratedConfigurationAndServesATenant) {
    // Tenants, their folders, and exports derived from them.
    data::StorageServiceConfig storage_config;
    storage_config.base_path = dir_ + "/storage";
    data::StorageService storage;
    ASSERT_TRUE(storage.initialize(storage_config));
    data::TenantConfig acme;
    acme.id = "acme";
    ASSERT_TRUE(storage.createTenant(acme));
    const std::string tenants = dir_ + "/storage/tenants";
    std::ofstream(tenants + "/acme/hello.txt") << "hello from ganesha";

    data::NFSConfiguration config;
    config.exports = data::GaneshaConfigGenerator::generateExportsFromTenants(storage, tenants, {});
    std::string problem;
    ASSERT_TRUE(data::GaneshaConfigGenerator::validateConfig(config, problem)) << problem;
    // The host's recovery folder is not ours to use.
    fs::create_directories(dir_ + "/recovery");
    const std::string conf = dir_ + "/ganesha.conf";
    std::ofstream(conf) << data::GaneshaConfigGenerator::generateGaneshaConf(config)
                        << "NFSV4 {\n    RecoveryRoot = " << dir_ << "/recovery;\n}\n";

    rpcbind_pid_ = launch("rpcbind -f", dir_ + "/rpcbind.log");
    ASSERT_TRUE(eventually([&] {
        return runCommand(inside("rpcinfo -p 127.0.0.1 >/dev/null 2>&1 && echo up")) == "up\n";
    })) << fileText(dir_ + "/rpcbind.log");

    const std::string log = dir_ + "/ganesha.log";
    ganesha_pid_ = launch("ganesha.nfsd -F -L " + log + " -f " + conf + " -p " + dir_ + "/ganesha.pid",
                          dir_ + "/ganesha.out");
    const bool started = eventually(
        [&] {
            return fileText(log).find("NFS SERVER INITIALIZED") != std::string::npos ||
                   ::kill(ganesha_pid_, 0) != 0;
        },
        30000);
    const std::string text = fileText(log);
    ASSERT_TRUE(started && text.find("NFS SERVER INITIALIZED") != std::string::npos)
        << text << fileText(dir_ + "/ganesha.out");
    EXPECT_EQ(configurationErrors(text), std::vector<std::string>{}) << text;

    // A real client mounts the tenant's export by its path.
    if (runCommand("which nfs-cat >/dev/null 2>&1 && echo yes") != "yes\n")
        GTEST_SKIP() << "libnfs-utils is not installed";
    EXPECT_EQ(runCommand(inside("timeout 30 nfs-cat 'nfs://10.255.255.1" + tenants +
                                "/acme/hello.txt?version=3' 2>&1")),
              "hello from ganesha");
    storage.shutdown();
}

}  // namespace
}  // namespace vostra::test
