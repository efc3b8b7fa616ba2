// The smallest host: starts the library, writes one line to logs/default.log, ends the library.
#include <KivFramework/KivFramework.h>

using namespace KivFramework;

int main() {
    InitializeLibrary(nullptr);
    kivLogger logger;
    KivLogger::SetLoggerBasePath(&logger, "logs");
    KivLogger::CreateLogger(&logger, /*level=*/4, /*flags=*/4); // 4: a log file
    KivLogger::AddLogEntry(&logger, 1, "hello", "running as pid %d",
                           KivProcesses::GetCurrentProcessPid());
    KivLogger::DestroyLogger(&logger);
    ShutdownLibrary();
    return 0;
}
