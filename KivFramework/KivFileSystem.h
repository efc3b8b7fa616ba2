/// \file
/// File facts, directory enumeration and creation, well-known folders.
#pragma once

#include "KivFramework/KivExport.h"

#include <string>

#include <dirent.h>

namespace KivFramework {
namespace KivFileSystem {

struct kivDirectory {
    DIR* handle = nullptr;
    std::string name;
    std::string path;
};

KIV_API int GetFileCreation(const char* path);
KIV_API int GetFileLastMod(const char* path);
KIV_API int GetFileSize(const char* path);
KIV_API bool CheckFile(std::string path);
KIV_API bool CheckDirectory(std::string path);
KIV_API bool MoveFile(std::string from, std::string to);
KIV_API bool MakeDirectory(std::string path, bool recursive);
KIV_API bool EnumDirFirstFile(kivDirectory* directory, bool ignored);
KIV_API bool EnumDirNextFile(kivDirectory* directory);
KIV_API bool EnumDirGetFirstDir(kivDirectory* directory);
KIV_API bool EnumDirGetNextDir(kivDirectory* directory);
KIV_API bool EnumDirClose(kivDirectory* directory);
KIV_API std::string GetHomeFolder();
KIV_API std::string GetAppSettingsFolder();
KIV_API std::string GetTemporaryFolder();
KIV_API int GetNumOfLogicalDrives();
KIV_API std::string DriveIndexToMountPoint(int index);
KIV_API unsigned long long GetSizeOfLogicalDrive(std::string mount_point);
KIV_API unsigned long long GetFreeSpaceOfLogicalDrive(std::string mount_point);

} // namespace KivFileSystem

using KivFileSystem::kivDirectory;

} // namespace KivFramework
