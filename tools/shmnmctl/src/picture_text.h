// The picture as text for people, as wide as their terminal.
#pragma once

#include <string>

#include "picture/picture.h"

namespace shmnmctl {

struct TextStyle {
    int columns = 0;  ///< 0: as wide as it gets
    bool colors = false;
    const picture::Picture* before = nullptr;  ///< words that differ from this one's are marked
};

/// Lines, each with its end.
std::string to_text(const picture::Picture& picture, const TextStyle& style);

}  // namespace shmnmctl
