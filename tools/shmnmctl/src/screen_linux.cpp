#include "screen.h"

#define NCURSES_NOMACROS
#include <ncurses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace shmnmctl {
namespace {

/// A terminal that its description in the system's database draws on.
class Terminal : public Screen {
  public:
    Terminal(SCREEN* screen, bool colors) : screen_(screen) {
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        // Long enough for the bytes of a key to come over a network, and short enough for the Escape key.
        set_escdelay(100);
        curs_set(0);
        if (!colors || !has_colors()) return;
        has_colors_ = start_color() == OK && use_default_colors() == OK && init_pair(good, COLOR_GREEN, -1) == OK &&
                      init_pair(bad, COLOR_RED, -1) == OK;
    }
    ~Terminal() override {
        endwin();
        delscreen(screen_);
    }

    Size size() override {
        winsize now{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &now) == 0 && now.ws_col > 0 && now.ws_row > 0 &&
            is_term_resized(now.ws_row, now.ws_col)) {
            resizeterm(now.ws_row, now.ws_col);
            // What the terminal has made of the old picture is not known.
            clearok(curscr, TRUE);
        }
        return {.columns = static_cast<size_t>(getmaxx(stdscr)), .rows = static_cast<size_t>(getmaxy(stdscr))};
    }

    void draw(const std::vector<ScreenLine>& lines) override {
        werase(stdscr);
        for (size_t row = 0; row < lines.size(); ++row) {
            wmove(stdscr, static_cast<int>(row), 0);
            for (const Span& span : lines[row]) {
                wattrset(stdscr, attributes(span));
                waddnstr(stdscr, span.text.data(), static_cast<int>(span.text.size()));
            }
        }
        wrefresh(stdscr);
    }

    bool has_keys() const override { return isatty(STDIN_FILENO) != 0; }

    std::optional<Press> key() override {
        for (int code = wgetch(stdscr); code != ERR; code = wgetch(stdscr)) {
            if (const auto press = press_of(code)) return press;
        }
        return std::nullopt;
    }

  private:
    static constexpr short good = 1, bad = 2;

    int attributes(const Span& span) const {
        if (span.is_reverse) return static_cast<int>(A_REVERSE);
        if (span.tone == Tone::heading) return static_cast<int>(A_BOLD);
        if (!has_colors_ || span.tone == Tone::plain) return static_cast<int>(A_NORMAL);
        return COLOR_PAIR(span.tone == Tone::good ? good : bad);
    }

    static std::optional<Press> press_of(int code) {
        switch (code) {
            case KEY_UP:
                return Press{Key::up};
            case KEY_DOWN:
                return Press{Key::down};
            case KEY_LEFT:
                return Press{Key::left};
            case KEY_RIGHT:
                return Press{Key::right};
            case KEY_PPAGE:
                return Press{Key::page_up};
            case KEY_NPAGE:
                return Press{Key::page_down};
            case KEY_HOME:
                return Press{Key::home};
            case KEY_END:
                return Press{Key::end};
            case KEY_ENTER:
            case '\r':
            case '\n':
                return Press{Key::enter};
            case KEY_BACKSPACE:
            case '\b':
            case 0x7F:
                return Press{Key::backspace};
            case 0x1B:
                return Press{Key::escape};
            default:
                if (code < ' ' || code > '~') return std::nullopt;
                return Press{Key::letter, static_cast<char>(code)};
        }
    }

    SCREEN* screen_;
    bool has_colors_ = false;
};

}  // namespace

std::unique_ptr<Screen> Screen::open(bool colors) {
    // A terminal without a name in the database, or one whose cursor stays in its line, is only written to.
    SCREEN* const screen = newterm(nullptr, stdout, stdin);
    if (!screen) return nullptr;
    return std::make_unique<Terminal>(screen, colors);
}

}  // namespace shmnmctl
