// Fills a property map from NAME=VALUE arguments and shows what it holds, in the order of the
// names' first coming. A name that begins with "!" is marked as the user's.
//   property_sheet [!]NAME=VALUE...
#include <cstdio>
#include <string>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

int main(int argc, char** argv) {
    InitializeLibrary(nullptr);
    kivPropertyMap properties;
    properties.SetInt("arguments", argc - 1, /*user_flag=*/false);
    for (int index = 1; index < argc; ++index) {
        std::string value = argv[index];
        std::string name;
        KivStringHelper::ExtractToken(value, name, "="); // leaves in `value` what follows the "="
        const bool users = !name.empty() && name[0] == '!';
        properties.SetString(name.c_str() + (users ? 1 : 0), value, users,
                             /*string_only_flag=*/false);
    }

    for (kivPropertyMap_Iterator at = properties.Begin(); at != properties.End(); ++at) {
        const item_attr entry = *at;
        std::printf("%s = %s%s\n", entry.name.c_str(), entry.value.c_str(),
                    entry.userFlag ? " (user)" : "");
    }
    bool verbose = false;
    if (properties.GetBool("verbose", verbose, nullptr)) {
        std::printf("verbose is %s\n", verbose ? "on" : "off");
    }
    ShutdownLibrary();
    return 0;
}
