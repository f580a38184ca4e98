#include "screen.h"

#include <windows.h>

#include <algorithm>

namespace shmnmctl {
namespace {

/// A screen buffer of its own in the console.
class Console : public Screen {
  public:
    Console(HANDLE buffer, bool colors)
        : buffer_(buffer),
          before_(GetStdHandle(STD_OUTPUT_HANDLE)),
          input_(GetStdHandle(STD_INPUT_HANDLE)),
          colors_(colors) {
        SetConsoleActiveScreenBuffer(buffer_);
        const CONSOLE_CURSOR_INFO hidden{.dwSize = 1, .bVisible = FALSE};
        SetConsoleCursorInfo(buffer_, &hidden);
        has_keys_ = GetConsoleMode(input_, &input_mode_) != 0;
        // Without echo, lines and selection by the mouse; Ctrl-C stays an event.
        if (has_keys_) SetConsoleMode(input_, ENABLE_PROCESSED_INPUT | ENABLE_WINDOW_INPUT | ENABLE_EXTENDED_FLAGS);
    }
    ~Console() override {
        if (has_keys_) SetConsoleMode(input_, input_mode_);
        SetConsoleActiveScreenBuffer(before_);
        CloseHandle(buffer_);
    }

    Size size() override {
        CONSOLE_SCREEN_BUFFER_INFO information{};
        if (!GetConsoleScreenBufferInfo(buffer_, &information)) return {};
        const SMALL_RECT& window = information.srWindow;
        return {.columns = static_cast<size_t>(window.Right - window.Left + 1),
                .rows = static_cast<size_t>(window.Bottom - window.Top + 1)};
    }

    void draw(const std::vector<ScreenLine>& lines) override {
        const Size now = size();
        CONSOLE_SCREEN_BUFFER_INFO information{};
        if (now.columns == 0 || !GetConsoleScreenBufferInfo(buffer_, &information)) return;
        CHAR_INFO blank{};
        blank.Char.UnicodeChar = L' ';
        blank.Attributes = plain;
        std::vector<CHAR_INFO> cells(now.columns * now.rows, blank);
        for (size_t row = 0; row < std::min(lines.size(), now.rows); ++row) {
            size_t column = 0;
            for (const Span& span : lines[row]) {
                for (size_t i = 0; i < span.text.size() && column < now.columns; ++i, ++column) {
                    CHAR_INFO& cell = cells[row * now.columns + column];
                    cell.Char.UnicodeChar = static_cast<unsigned char>(span.text[i]);
                    cell.Attributes = attributes(span);
                }
            }
        }
        SMALL_RECT window = information.srWindow;
        WriteConsoleOutputW(buffer_, cells.data(), {static_cast<SHORT>(now.columns), static_cast<SHORT>(now.rows)},
                            {0, 0}, &window);
    }

    bool has_keys() const override { return has_keys_; }

    std::optional<Press> key() override {
        INPUT_RECORD record{};
        DWORD count = 0;
        while (GetNumberOfConsoleInputEvents(input_, &count) && count > 0 &&
               ReadConsoleInputW(input_, &record, 1, &count)) {
            if (record.EventType != KEY_EVENT || !record.Event.KeyEvent.bKeyDown) continue;
            if (const auto press = press_of(record.Event.KeyEvent)) return press;
        }
        return std::nullopt;
    }

  private:
    static constexpr WORD plain = FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;

    WORD attributes(const Span& span) const {
        if (span.is_reverse) return BACKGROUND_RED | BACKGROUND_GREEN | BACKGROUND_BLUE;
        if (span.tone == Tone::heading) return plain | FOREGROUND_INTENSITY;
        if (!colors_ || span.tone == Tone::plain) return plain;
        return (span.tone == Tone::good ? FOREGROUND_GREEN : FOREGROUND_RED) | FOREGROUND_INTENSITY;
    }

    static std::optional<Press> press_of(const KEY_EVENT_RECORD& event) {
        switch (event.wVirtualKeyCode) {
            case VK_UP:
                return Press{Key::up};
            case VK_DOWN:
                return Press{Key::down};
            case VK_LEFT:
                return Press{Key::left};
            case VK_RIGHT:
                return Press{Key::right};
            case VK_PRIOR:
                return Press{Key::page_up};
            case VK_NEXT:
                return Press{Key::page_down};
            case VK_HOME:
                return Press{Key::home};
            case VK_END:
                return Press{Key::end};
            case VK_RETURN:
                return Press{Key::enter};
            case VK_BACK:
                return Press{Key::backspace};
            case VK_ESCAPE:
                return Press{Key::escape};
            default:
                break;
        }
        const wchar_t letter = event.uChar.UnicodeChar;
        if (letter < L' ' || letter > L'~') return std::nullopt;
        return Press{Key::letter, static_cast<char>(letter)};
    }

    HANDLE buffer_, before_, input_;
    bool colors_, has_keys_ = false;
    DWORD input_mode_ = 0;
};

}  // namespace

std::unique_ptr<Screen> Screen::open(bool colors) {
    const HANDLE buffer = CreateConsoleScreenBuffer(GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                    nullptr, CONSOLE_TEXTMODE_BUFFER, nullptr);
    if (buffer == INVALID_HANDLE_VALUE) return nullptr;
    return std::make_unique<Console>(buffer, colors);
}

}  // namespace shmnmctl
