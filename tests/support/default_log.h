#pragma once

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"

#include "tests/support/temp_directory.h"

#include <sstream>
#include <string>

namespace kiv_test {

/// Collects what the library logs through the default logger until the end of the scope.
class default_log {
public:
    default_log() {
        constexpr int to_file = 4;
        KivFramework::KivLogger::SetLoggerBasePath(&logger_, directory_.path());
        KivFramework::KivLogger::SetLoggerFile(&logger_, "log");
        KivFramework::KivLogger::CreateLogger(&logger_, /*level=*/1, to_file);
        KivFramework::SetDefaultLogger(&logger_);
    }
    ~default_log() {
        KivFramework::RemoveDefaultLogger();
        KivFramework::KivLogger::DestroyLogger(&logger_);
    }
    default_log(const default_log&) = delete;
    default_log& operator=(const default_log&) = delete;

    /// Everything logged so far, each entry without its date: "[module] message", line breaks and
    /// all.
    std::string text() const {
        constexpr std::size_t length_of_date =
            std::char_traits<char>::length("MM/DD/YYYY hh:mm:ss");
        constexpr const char* separator = " - ";
        std::istringstream lines(read_file(directory_.file("log")));
        std::string undated;
        for (std::string line; std::getline(lines, line);) {
            const bool dated =
                line.size() > length_of_date && line.compare(length_of_date, 3, separator) == 0;
            undated += (dated ? line.substr(length_of_date + 3) : line) + '\n';
        }
        return undated;
    }

private:
    temp_directory directory_;
    KivFramework::kivLogger logger_;
};

} // namespace kiv_test
