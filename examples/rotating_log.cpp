// Writes lines to an hourly log from several threads through the logger's own writer thread, and
// tells of every file that it finished.
//   rotating_log DIRECTORY LINES
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

namespace {

// Runs under the logger's lock: it must not write to that logger.
void file_finished(const char* rotated_path) {
    std::printf("finished %s\n", rotated_path);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY LINES\n", argv[0]);
        return 2;
    }
    const int lines = std::atoi(argv[2]);

    InitializeLibrary(nullptr);
    kivLogger log;
    KivLogger::SetLoggerFile(&log, "work.log");
    KivLogger::SetLoggerBasePath(&log, argv[1]);
    KivLogger::CreateLogger(&log, /*level=*/3, /*flags=*/4); // 4: a log file
    KivLogger::SetLoggerRotation(&log, /*mode=*/1);          // 1: hourly
    KivLogger::SetLoggerRotationCallback(&log, reinterpret_cast<void*>(file_finished));
    KivLogger::SetLoggerDetachedStatus(&log, true);

    std::vector<std::thread> workers;
    workers.reserve(4);
    for (int worker = 0; worker < 4; ++worker) {
        workers.emplace_back([&log, worker, lines] {
            for (int line = 0; line < lines; ++line) {
                KivLogger::AddLogEntry(&log, 3, "worker", "worker %d, line %d", worker, line);
                KivLogger::AddLogEntry(&log, 4, "worker", "dropped: above the threshold");
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }

    KivLogger::FlushDetachedThread(&log); // everything queued so far is with the C library now
    KivLogger::DestroyLogger(&log);       // and here in the file
    std::printf("wrote %d lines\n", 4 * lines);
    ShutdownLibrary();
    return 0;
}
