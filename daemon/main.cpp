// Entry point of vostra-datad: configuration, optional detaching, the daemon's
// life cycle and the signal-driven shutdown.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>

#include "connectors/data_source_config.h"
#include "daemon/command_line.h"
#include "daemon/data_daemon.h"

using vostra::data::DataDaemon;

namespace {

volatile std::sig_atomic_t g_running = 1;

// Only async-signal-safe work here: the message goes out with write(), and the
// idle loop of main() performs the stop that the signal asks for.
void signalHandler(int sig) {
    char message[64] = "\n[vostra-datad] Received signal ";
    std::size_t length = sizeof "\n[vostra-datad] Received signal " - 1;
    char digits[12];
    int count = 0;
    for (unsigned value = static_cast<unsigned>(sig); count == 0 || value > 0; value /= 10)
        digits[count++] = static_cast<char>('0' + value % 10);
    while (count > 0) message[length++] = digits[--count];
    for (const char* tail = ", shutting down...\n"; *tail; ++tail) message[length++] = *tail;
    (void)!write(STDOUT_FILENO, message, length);
    g_running = 0;
}

void detach() {
    pid_t pid = fork();
    if (pid < 0) {
        std::cerr << "Failed to fork" << std::endl;
        std::exit(1);
    }
    if (pid > 0) std::exit(0);
    setsid();
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    // Left closed, descriptors 0-2 would be handed to the next sockets we
    // open, and log lines would then land in clients' answers.
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO) close(null);
    }
}

// Connections waiting in the reader cost a descriptor each; the usual soft
// limit of 1024 would refuse clients long before the configured cap.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void idleUntilSignalled() {
    while (g_running) {
        timespec wait{0, 100 * 1000 * 1000};
        while (nanosleep(&wait, &wait) != 0 && errno == EINTR && g_running) {
        }
    }
}

void addStartupSources(DataDaemon& daemon, const std::vector<std::string>& sources) {
    for (const std::string& text : sources) {
        try {
            auto config = vostra::data::DataSourceConfig::fromJson(nlohmann::json::parse(text));
            if (daemon.addDataSource(config))
                std::cout << "Added data source: " << config.id << std::endl;
            else
                std::cerr << "Failed to add data source: " << config.id << std::endl;
        } catch (const std::exception& error) {
            std::cerr << "Error parsing data source: " << error.what() << std::endl;
        }
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    vostra::data::CommandLine line;
    try {
        line = vostra::data::parseCommandLine(argc, argv);
    } catch (const std::exception& error) {
        // A port or interval that is not a number.
        std::cerr << "Invalid numeric option value: " << error.what() << std::endl;
        return 1;
    }
    if (line.exit_status) return *line.exit_status;

    if (line.daemonize)
        detach();
    else
        vostra::data::printBanner();

    std::signal(SIGINT, signalHandler);
    std::signal(SIGTERM, signalHandler);
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();

    vostra::data::printConfiguration(line.config);

    DataDaemon& daemon = DataDaemon::getInstance();
    if (!daemon.initialize(line.config)) {
        std::cerr << "Failed to initialize data daemon" << std::endl;
        return 1;
    }
    addStartupSources(daemon, line.add_sources);
    if (!daemon.start()) {
        std::cerr << "Failed to start data daemon" << std::endl;
        return 1;
    }
    std::cout << "Data daemon started" << std::endl;

    idleUntilSignalled();
    daemon.stop();
    return 0;
}
