/// \file
/// Loggers: leveled entries to standard output, files and the system log.
#pragma once

#include "KivFramework/KivExport.h"
#include "KivFramework/KivProcesses.h"

#include <cstdio>
#include <ctime>
#include <list>
#include <string>

namespace KivFramework {
namespace KivLogger {

struct kivLogger {
    int level = 0;
    int flags = 0;
    int facility = -1;
    std::FILE* file = nullptr;
    std::string file_name;
    std::string base_path;
    std::string identity;
    pthread_mutex_t* lock = nullptr;
    pthread_mutex_t* queue_lock = nullptr;
    KivProcesses::_posix_conditional_var* queue_signal = nullptr;
    KivProcesses::kivThreadObj* writer_thread = nullptr;
    int rotation = 0;
    std::tm period_start = std::tm();
    int detached = 0;
    int stop_writer = 0;
    void (*rotation_callback)(const char* rotated_path) = nullptr;
    std::list<std::string> queue;
    void* internal_state = nullptr; ///< the library's own bookkeeping; hosts leave it alone
};

KIV_API void SetLoggerFile(kivLogger* logger, const char* file_name);
KIV_API void SetLoggerBasePath(kivLogger* logger, std::string base_path);
KIV_API void SetLoggerIdentity(kivLogger* logger, std::string identity);
KIV_API void SetLoggerFacility(kivLogger* logger, int local_number);
KIV_API void CreateLogger(kivLogger* logger, int level, int flags);
KIV_API void SetLoggerRotation(kivLogger* logger, int mode);
KIV_API void SetLoggerRotationCallback(kivLogger* logger, void* callback);
KIV_API void SetLoggerDetachedStatus(kivLogger* logger, bool detached);
KIV_API void AddLogEntry(kivLogger* logger, int level, const char* module, const char* format, ...)
    KIV_PRINTF(4, 5);
KIV_API void DumpLogString(kivLogger* logger, std::string& line, int level, bool flush);
KIV_API void CheckLogRotation(kivLogger* logger);
KIV_API void FlushDetachedThread(kivLogger* logger);
KIV_API void* detached_logger_thread(void* argument);
KIV_API void DestroyLogger(kivLogger* logger);

} // namespace KivLogger

using KivLogger::kivLogger;

} // namespace KivFramework
