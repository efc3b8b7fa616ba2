/// \file
/// File facts, directory enumeration and creation, well-known folders.
///
/// Paths have "/" as separator; one longer than the system allows fails like one that does not
/// exist, and a zero byte ends it. After a failure that a system call reported, `errno` tells why.
/// The module keeps no state, so its functions may run in any number of threads at once, each
/// enumeration record in one of them.
#pragma once

#include "KivFramework/KivExport.h"

#include <string>

#include <dirent.h>

namespace KivFramework {
namespace KivFileSystem {

/// One enumeration of a directory's files or subdirectories. The record is the caller's, who sets
/// `path`, calls a "first" operation, then "next" ones until false, then `EnumDirClose`.
///
/// \code
/// kivDirectory directory;
/// directory.path = directory_path;
/// for (bool found = KivFileSystem::EnumDirFirstFile(&directory, false); found;
///      found = KivFileSystem::EnumDirNextFile(&directory)) {
///     const std::string path = directory_path + "/" + directory.name;
/// \endcode
///
/// Guarded by no lock: one thread at a time.
struct kivDirectory {
    DIR* handle = nullptr; ///< set by the "first" operations; null when `path` cannot be opened
    std::string name;      ///< name, not path, of the entry found last
    std::string path;      ///< the directory to enumerate, without a trailing "/"
};

/// The time of a file's last status change, which stands in for its creation.
///
/// Symbolic links are followed.
///
/// \returns seconds since the epoch, of which an `int` holds the low 32 bits; -1 when `path` does
///          not lead to a file.
KIV_API int GetFileCreation(const char* path);

/// The time of a file's last modification, in the manner of `GetFileCreation`.
///
/// \returns seconds since the epoch; -1 when `path` does not lead to a file.
KIV_API int GetFileLastMod(const char* path);

/// A file's size. Symbolic links are followed.
///
/// \returns bytes; -1 when `path` does not lead to a file.
///
/// Deliberate: the result is the low 32 bits of the size, because the interface gives an `int`.
/// From 2 GiB on it is negative or too small: a file of 5 GiB gives 1073741824.
KIV_API int GetFileSize(const char* path);

/// Whether `path` can be opened for reading. A directory can; a FIFO waits for its writer.
KIV_API bool CheckFile(std::string path);

/// Whether `path` can be opened as a directory.
KIV_API bool CheckDirectory(std::string path);

/// Gives the file `from` the name `to`, within one file system.
///
/// \returns true when the file has its new name.
///
/// Deliberate: a file at `to` is removed first and stays removed when `from` then cannot be
/// renamed, because hosts expect the old target to be gone in every case. Moving a file to its own
/// name therefore loses it.
KIV_API bool MoveFile(std::string from, std::string to);

/// Makes a directory that only its owner may enter (mode 0700, less the process's umask).
///
/// With `recursive`, every missing directory of the path is made, from left to right; empty parts
/// ("a//b/") are skipped.
///
/// \returns true when the directory, with `recursive` the last of the path, was made now.
///
/// Deliberate: a directory that exists already gives false, with `recursive` too, so that one of
/// several makers learns that it was the one; ask `CheckDirectory` whether it is there.
/// Deliberate: with `recursive`, a path that begins with two backslashes gets two more in front.
/// The prefix of a network path is put before the part that holds it already; no path here has one.
KIV_API bool MakeDirectory(std::string path, bool recursive);

/// Opens `path` of the record and finds the first regular file in it, as `EnumDirNextFile` does.
///
/// A stream that the record still holds is not closed: call `EnumDirClose` first.
///
/// \param ignored  accepted and never looked at.
/// \returns false when there is no regular file or the directory cannot be opened, which leaves
///          `handle` null.
KIV_API bool EnumDirFirstFile(kivDirectory* directory, bool ignored);

/// Finds the next regular file, in the directory's own order.
///
/// Symbolic links are followed; entries that cannot be examined are passed over.
///
/// \returns true with `name` set; false at the end, with `name` as it was.
KIV_API bool EnumDirNextFile(kivDirectory* directory);

/// Opens `path` of the record and finds the first subdirectory in it, as `EnumDirGetNextDir` does.
///
/// A stream that the record still holds is not closed: call `EnumDirClose` first.
///
/// \returns false when the directory cannot be opened, which leaves `handle` null.
KIV_API bool EnumDirGetFirstDir(kivDirectory* directory);

/// Finds the next subdirectory, in the directory's own order, "." and ".." included.
///
/// Symbolic links are followed; entries that cannot be examined are passed over.
///
/// \returns true with `name` set; false at the end, with `name` as it was.
KIV_API bool EnumDirGetNextDir(kivDirectory* directory);

/// Closes the record's stream; call it once per "first" operation.
///
/// \returns true when there was a stream and it was closed.
///
/// Deliberate: `handle` keeps the closed stream's address, as hosts compare it; a second call or a
/// "next" operation on it is an error, as with any closed stream.
KIV_API bool EnumDirClose(kivDirectory* directory);

/// The value of the environment variable HOME; the empty text when it is not set.
KIV_API std::string GetHomeFolder();

/// The same as `GetHomeFolder`.
KIV_API std::string GetAppSettingsFolder();

/// The folder for temporary files: always "/tmp".
KIV_API std::string GetTemporaryFolder();

/// The number of logical drives: always 0, since this platform has none.
KIV_API int GetNumOfLogicalDrives();

/// The mount point of a logical drive: always the empty text, since there are no drives.
KIV_API std::string DriveIndexToMountPoint(int index);

/// The size of a logical drive: always 0, since there are no drives.
KIV_API unsigned long long GetSizeOfLogicalDrive(std::string mount_point);

/// The free space of a logical drive: always 0, since there are no drives.
KIV_API unsigned long long GetFreeSpaceOfLogicalDrive(std::string mount_point);

} // namespace KivFileSystem

using KivFileSystem::kivDirectory;

} // namespace KivFramework
