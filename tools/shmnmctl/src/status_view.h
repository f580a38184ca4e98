// What "status" shows of a copy, for the page, the document and the screen.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "picture/json.h"
#include "picture/picture.h"
#include "picture/selection.h"
#include "sheet.h"

namespace shmnmctl {

struct StatusOptions {
    Selection selection;
    uint32_t interval_ms = 0;
};

/// Colours are for terminals, unless NO_COLOR forbids them (any value but the empty one, as is the custom).
bool wants_colors();

/// The changes that killed processes have left half done, each in a line without its end.
std::vector<std::string> warnings(const Snapshot& snapshot);

/// The document "status" with the selected rows alone. Where any may be missing, "columns" names the servers to which
/// the states of a row belong.
std::string status_document(const Snapshot& snapshot, const Picture& picture, const Selection& selection);

class Screen;

/// Shows the picture on a screen again and again, and obeys the keys, until it is told to end.
Exit show_on_screen(const Context& context, const StatusOptions& options, Screen& screen);

}  // namespace shmnmctl
