// Sets one value in a configuration file and shows the old one. Comments and order stay.
//   config_edit FILE SECTION KEY VALUE
#include <cstdio>
#include <string>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s FILE SECTION KEY VALUE\n", argv[0]);
        return 2;
    }
    const char* const file = argv[1];
    const char* const section = argv[2];
    const char* const key = argv[3];
    const char* const value = argv[4];

    InitializeLibrary(nullptr);
    kivConfigManager config;
    LoadConfigFile(&config, file); // a missing file reads as an empty one and is made below
    const std::string old = GetConfigValue(&config, section, key, std::string("(unset)"));
    SetConfigValue(&config, section, key, value);
    const bool saved = SaveConfigFile(&config, file);
    if (saved) {
        std::printf("[%s] %s: %s -> %s\n", section, key, old.c_str(), value);
    } else {
        std::fprintf(stderr, "%s cannot be written\n", file);
    }
    ShutdownLibrary();
    return saved ? 0 : 1;
}
