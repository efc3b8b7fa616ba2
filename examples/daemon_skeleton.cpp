// A daemon in sixty lines: settings from a file, a log that rotates, one instance at a time, and an
// orderly end on SIGTERM or SIGINT.
//   daemon_skeleton FILE [--foreground]
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <KivFramework/KivFramework.h>
#include <fcntl.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

// The standard descriptors are closed in a daemon. Whatever opens a file next would take their
// numbers, so the null device does.
void open_standard_descriptors() {
    for (int count = 0; count < 3; ++count) {
        if (open("/dev/null", O_RDWR) == -1) {
            _exit(1);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE [--foreground]\n", argv[0]);
        return 2;
    }
    const bool foreground = argc > 2 && std::strcmp(argv[2], "--foreground") == 0;

    InitializeLibrary(nullptr);
    kivConfigManager settings;
    if (!LoadConfigFile(&settings, argv[1])) {
        std::fprintf(stderr, "%s cannot be read\n", argv[1]);
        return 1;
    }
    const std::string directory = GetConfigValue(&settings, "log", "directory", std::string("."));
    const int level = GetConfigValue(&settings, "log", "level", 3);
    const std::string name = GetConfigValue(&settings, "daemon", "name", std::string("skeleton"));

    // First of all: threads, the log's writer among them, do not survive this.
    if (!foreground && KivServices::ForkAndDaemon(/*parent_exit_code=*/0)) {
        open_standard_descriptors();
    }
    const int lock = CreateUniqueLock((name + ".lock").c_str());
    if (lock == -1) {
        return 1;
    }

    // Blocked before any thread is started, in all of them, the signals wait for sigwait.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    kivLogger log;
    KivLogger::SetLoggerFile(&log, (name + ".log").c_str());
    KivLogger::SetLoggerBasePath(&log, directory);
    KivLogger::CreateLogger(&log, level, /*flags=*/4); // 4: a log file
    KivLogger::SetLoggerRotation(&log, /*mode=*/2);    // 2: daily
    KivLogger::SetLoggerDetachedStatus(&log, true);    // a thread of its own writes the file
    SetDefaultLogger(&log);                            // the library's own messages go there, too
    KivLogger::AddLogEntry(&log, 1, "daemon", "running as pid %d",
                           KivProcesses::GetCurrentProcessPid());

    int signal_number = 0;
    sigwait(&stop_signals, &signal_number); // the daemon's work goes here
    KivLogger::AddLogEntry(&log, 1, "daemon", "ending on signal %d", signal_number);

    RemoveDefaultLogger();
    KivLogger::DestroyLogger(&log); // writes what still waits
    DeleteUniqueLock(lock, (name + ".lock").c_str());
    ShutdownLibrary();
    return 0;
}
