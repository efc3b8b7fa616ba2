// Shows the load of each processor, and which file of a directory is the largest, once a second.
//   watch_system DIRECTORY ROUNDS
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

namespace {

std::string largest_file(const std::string& directory_path) {
    std::string largest = "(none)";
    int largest_size = -1;
    kivDirectory directory;
    directory.path = directory_path;
    for (bool found = KivFileSystem::EnumDirFirstFile(&directory, false); found;
         found = KivFileSystem::EnumDirNextFile(&directory)) {
        const std::string path = directory_path + "/" + directory.name;
        const int size = KivFileSystem::GetFileSize(path.c_str());
        if (size > largest_size) {
            largest = directory.name;
            largest_size = size;
        }
    }
    if (directory.handle != nullptr) {
        KivFileSystem::EnumDirClose(&directory);
    }
    return largest;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY ROUNDS\n", argv[0]);
        return 2;
    }
    InitializeLibrary(nullptr);
    KivPerformanceMonitor::StartPerformanceMonitor(); // the first loads come a second later
    for (int round = 0; round < std::atoi(argv[2]); ++round) {
        MicroSleep(1000); // milliseconds
        const std::string now = KivStringHelper::FormatTime(std::time(nullptr), /*mode=*/0);
        std::printf("%s  load %% %s largest %s\n", now.c_str(),
                    KivPerformanceMonitor::GetFormattedProcUsage().c_str(),
                    largest_file(argv[1]).c_str());
    }
    ShutdownLibrary(); // stops the monitor, too
    return 0;
}
