/// \file
/// The picture that `kiv-console top` shows: a snapshot laid out as lines of text.
#pragma once

#include "snapshot.h"

#include <string>
#include <vector>

namespace agent {

/// How a picture is to be drawn.
struct picture_style {
    int columns = 80; ///< no line is wider, if the rows are limited
    int rows = 0;     ///< exactly so many lines; 0 for as many as it takes
    bool colour = false;
    bool unicode = false;
};

/// Lays out a snapshot.
///
/// Few processors have a line each, many share lines. Where there is not room for everything the
/// jobs give way first, those that do not run before the others, and then the processors; what is
/// left out is counted.
///
/// \param clock   the time, for the upper right corner.
/// \param footer  the last line where the rows are limited.
std::vector<std::string> picture_of(const snapshot& shown, const picture_style& style,
                                    const std::string& clock, const std::string& footer);

} // namespace agent
