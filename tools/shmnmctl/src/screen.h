// The terminal as a screen that lines are drawn on and keys come from. Free of system headers.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "viewport.h"

namespace shmnmctl {

class Screen {
  public:
    /// Takes the terminal over; it is as before when this ends.
    /// @return null: it can only be written to
    static std::unique_ptr<Screen> open(bool colors);
    Screen() = default;
    virtual ~Screen() = default;
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// As it is now.
    virtual Size size() = 0;
    /// @param[in] lines  as many as it has rows, none longer than its columns
    virtual void draw(const std::vector<ScreenLine>& lines) = 0;
    /// Whether keys can come.
    virtual bool has_keys() const = 0;
    /// The next key that was pressed; nothing when there is none yet.
    virtual std::optional<Press> key() = 0;
};

}  // namespace shmnmctl
