// The picture as text for people, as wide as their terminal.
#pragma once

#include <string>

#include "sheet.h"

namespace shmnmctl {

struct TextStyle {
    int columns = 0;  ///< 0: unlimited
    bool colors = false;
};

/// Lines, each with its end.
std::string to_text(const Sheet& sheet, const TextStyle& style);

}  // namespace shmnmctl
