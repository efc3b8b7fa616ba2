/// \file
/// Configuration files: loading, typed access, and saving by editing the existing file in place.
#pragma once

#include "KivFramework/KivExport.h"

#include <map>
#include <string>

namespace KivFramework {

struct kivConfigManager {
    std::map<std::string, std::string> values;
    std::string filePath;
};

KIV_API bool LoadConfigFile(kivConfigManager* manager, const char* path);
KIV_API std::string GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                   std::string default_value);
KIV_API int GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                           int default_value);
KIV_API long GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            long default_value);
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            const char* value);
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            int value);
KIV_API bool SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                            long value);
KIV_API bool SaveConfigFile(kivConfigManager* manager, const char* path);
KIV_API void GetConfigValuesectbound(std::string& text, std::string& section, long& start,
                                     long& end);
KIV_API void ConfigReplaceKey(std::string& text, std::string section, std::string key,
                              std::string value);

} // namespace KivFramework
