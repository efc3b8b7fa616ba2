/// \file
/// Conversions, trimming, tokenizing and line access on byte strings.
#pragma once

#include "KivFramework/KivExport.h"

#include <set>
#include <string>
#include <vector>

namespace KivFramework {
namespace KivStringHelper {

KIV_API std::string FromInt(int value);
KIV_API std::string FromLong(long value);
KIV_API std::string FromTime(long seconds);
KIV_API std::string FromInt64(long long value);
KIV_API std::string FromSizet(unsigned long value);
KIV_API std::string FromBool(bool value);
KIV_API std::string FromDouble(double value, int precision);
KIV_API std::string FromFloat(float value, int precision);
KIV_API bool ToBool(std::string text);
KIV_API void TrimLeft(std::string& text);
KIV_API void TrimRight(std::string& text);
KIV_API void TrimCR(std::string& text);
KIV_API std::string ToLower(std::string text);
KIV_API std::string ToUpper(std::string text);

KIV_API bool ExtractToken(std::string& source, std::string& token, const char* separator,
                          const char* quote, bool strip_quotes);
KIV_API bool ExtractToken(std::string& source, std::string& token, const char* separator);
KIV_API std::vector<std::string> TokenizeString(std::string text, std::string separators);
KIV_API std::set<std::string> TokenizeStringToSet(std::string text, std::string separators);
KIV_API std::set<long> TokenizeStringToLongSet(std::string text, std::string separators);
KIV_API bool SplitCommandLines(std::string command_line, std::string& program,
                               std::string& arguments);
KIV_API std::string GetLine(const char* text, int line_number);
KIV_API std::string GetLine(std::string text, int line_number);
KIV_API std::string Replace(std::string text, std::string search, std::string replacement);
KIV_API std::string ConformToOS(std::string path);
KIV_API std::string LongSetToPrintableRanges(std::set<long>* numbers);

} // namespace KivStringHelper
} // namespace KivFramework
