// kiv-agent: a monitored, remotely operated agent, and the model of a host of the library.

#include "agent_log.h"
#include "configuration.h"
#include "files.h"
#include "instance.h"
#include "server.h"
#include "standard_descriptors.h"

#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivServices.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int exit_refused = 1;
constexpr int exit_usage = 2;

constexpr const char* usage =
    R"(usage: kiv-agent --config FILE [--foreground]
       kiv-agent --config FILE --check

Reads FILE and serves kiv-console on a loopback port, as a daemon unless --foreground is given. When
FILE is missing a default one is written there, whose comments explain every setting.

  --config FILE   the configuration file
  --foreground    stay in the foreground
  --check         say whether FILE can be used, and end
  --help          show this text, and end
  --version       show the version, and end

SIGTERM, SIGINT and SIGHUP end the agent and its jobs; what it has logged is written out first.

Exit codes: 0 the agent ended cleanly (or runs as a daemon now), 1 it refused to start, 2 usage.
)";

struct command_line {
    std::string config;
    bool foreground = false;
    bool check = false;
    bool help = false;
    bool version = false;
};

std::optional<command_line> parse(int argc, char** argv) {
    command_line result;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--config" && i + 1 < argc) {
            result.config = argv[++i];
        } else if (word == "--foreground") {
            result.foreground = true;
        } else if (word == "--check") {
            result.check = true;
        } else if (word == "--help") {
            result.help = true;
        } else if (word == "--version") {
            result.version = true;
        } else {
            std::fprintf(stderr, "kiv-agent: what is '%s'?\n%s", word.c_str(), usage);
            return std::nullopt;
        }
    }
    if (result.config.empty() && !result.help && !result.version) {
        std::fprintf(stderr, "kiv-agent: --config FILE is missing\n%s", usage);
        return std::nullopt;
    }
    return result;
}

// Returns in the child; the parent ends with exit code 0, everything that can fail done before.
void become_daemon() {
    const mode_t mask = ::umask(0);
    std::fflush(stdout); // the parent leaves without flushing
    if (!KivFramework::KivServices::ForkAndDaemon(0)) {
        throw agent::refusal("cannot fork");
    }
    // The library leaves the standard descriptors closed and the mask at 0. The agent and its jobs
    // write files, which are not for everybody to write.
    agent::fill_standard_descriptors(O_RDWR);
    ::umask(mask);
}

void serve(agent::configuration& config, bool foreground) {
    // Until the server can handle it, a signal to end waits: it would leave the files behind.
    agent::block_ending_signals(true);
    // What excludes other agents comes first, what announces this one last.
    const agent::pid_file pid(config.values().pid_file);
    const agent::file_area files(config.values().files_directory);
    agent::agent_log log(config.values());
    const agent::listener entrance(config.values());
    std::printf("kiv-agent: listening on 127.0.0.1:%d\n", entrance.port());
    std::fflush(stdout);
    if (!foreground) {
        become_daemon();
    }
    pid.record_this_process();
    log.detach(); // its thread would not have survived the fork
    agent::server server(config, log, entrance, files); // starts the monitor's thread, likewise
    agent::tell_service_manager();
    server.run();
}

int run(const command_line& options) {
    try {
        agent::configuration config(options.config);
        if (options.check) {
            std::printf("%s can be used\n", config.path().c_str());
            return 0;
        }
        serve(config, options.foreground);
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "kiv-agent: %s\n", problem.what());
        return exit_refused;
    }
}

} // namespace

int main(int argc, char** argv) {
    agent::fill_standard_descriptors(O_RDWR);
    const std::optional<command_line> options = parse(argc, argv);
    if (!options) {
        return exit_usage;
    }
    if (options->help) {
        std::fputs(usage, stdout);
        return 0;
    }
    if (options->version) {
        std::puts("kiv-agent " KIV_AGENT_VERSION);
        return 0;
    }
    KivFramework::InitializeLibrary(nullptr);
    const int exit_code = run(*options);
    KivFramework::ShutdownLibrary();
    return exit_code;
}
