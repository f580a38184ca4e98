// "status": the whole picture, once or again and again in place.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "context.h"
#include "duration.h"
#include "picture/decode.h"
#include "picture/interrupted.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/platform.h"
#include "picture_text.h"
#include "session.h"

namespace shmnmctl {
namespace {

/// Colours are for terminals, unless NO_COLOR says no (any value but the empty one, as is the custom).
bool wants_colors(const session::Terminal& terminal) {
    const char* const no_color = std::getenv("NO_COLOR");
    return terminal.is_terminal && !(no_color && *no_color) && session::enable_escapes();
}

/// The width that text has: that of the terminal, or what COLUMNS says, or without limit.
int columns(const session::Terminal& terminal) {
    if (terminal.columns > 0) return terminal.columns;
    const char* const variable = std::getenv("COLUMNS");
    const auto value = variable ? Value::parse(variable) : std::nullopt;
    const auto number = value ? value->to_int32() : std::nullopt;
    return std::max(number.value_or(0), 0);
}

/// What a killed process has left, before all else; "" where nothing is known of such.
std::string warnings(const Snapshot& snapshot) {
    std::string text;
    for (const Interrupted& one : interrupted_in(snapshot))
        text += "! " + sentence(one) + "; see \"shmnmctl verify\"\n";
    return text;
}

Exit show_once(const Context& context) {
    const Snapshot snapshot = look(context);
    const Picture picture = decode(snapshot);
    if (context.json()) {
        write_output(line(to_json(snapshot, picture)));
    } else {
        const session::Terminal terminal = session::terminal();
        write_output(warnings(snapshot) +
                     to_text(picture, {.columns = columns(terminal), .colors = wants_colors(terminal)}));
    }
    return Exit::done;
}

/// The other screen of a terminal, without a cursor, as long as this lives.
class Screen {
  public:
    Screen() { write_output("\x1b[?1049h\x1b[?25l"); }
    ~Screen() {
        try {
            write_output("\x1b[?25h\x1b[?1049l");
        } catch (const Failure&) {
            // There is no terminal left to be put in order.
        }
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Draws over what is there, in one write, so that nothing flickers.
    static void draw(const std::string& text, int rows) {
        std::string output = "\x1b[H";
        std::string_view left = text;
        for (int row = 0; !left.empty() && (rows <= 0 || row < rows); ++row) {
            const std::string_view line = left.substr(0, left.find('\n'));
            left.remove_prefix(std::min(line.size() + 1, left.size()));
            if (row > 0) output += "\r\n";
            output += line;
            output += "\x1b[K";
        }
        write_output(output + "\x1b[J");
    }
};

Exit show_again_and_again(const Context& context, const std::string& time) {
    refuse_file(context, "use --watch without FILE");
    const uint32_t interval = time_ms({.name = "--watch", .least = "10ms", .most = "24h"}, time);
    session::catch_stop();
    LiveRegion region(context.access);
    region.expect();
    std::optional<Screen> screen;
    if (!context.json() && session::terminal().is_terminal && session::enable_escapes()) screen.emplace();
    std::optional<Picture> shown;
    do {
        std::optional<Snapshot> snapshot;
        std::string problem;  // in the place of the picture
        try {
            snapshot = region.copy(Bytes::in_use);
        } catch (const Error& error) {
            // It may come back.
            if (error.kind != ErrorKind::no_region && error.kind != ErrorKind::lock_timeout) throw;
            problem = to_text(Failure(error), context.json());
        }
        // Asked for at each draw: it may have been resized.
        const session::Terminal terminal = session::terminal();
        std::string text =
            fmt::format("{}  every {}\n", platform::to_text(platform::wall_clock_us()), duration_text(interval));
        if (snapshot) {
            Picture picture = decode(*snapshot);
            if (context.json()) text = line(to_json(*snapshot, picture));
            if (!context.json()) {
                text += "\n" + warnings(*snapshot) +
                        to_text(picture, {.columns = columns(terminal),
                                          .colors = wants_colors(terminal),
                                          .before = shown ? &*shown : &picture});
            }
            shown = std::move(picture);
        } else {
            shown.reset();
            text = context.json() ? problem : text + problem;
        }
        if (screen) {
            Screen::draw(text, terminal.rows);
        } else {
            write_output(context.json() ? text : text + "\n");
        }
    } while (session::wait(interval) != session::Wake::stop);
    return Exit::done;
}

}  // namespace

void add_status_command(CLI::App& app, Context& context) {
    static std::string time;
    CLI::App* const command = app.add_subcommand("status", "Show the whole picture");
    add_format(*command, context);
    CLI::Option* const watch =
        command->add_option("--watch", time, "Show it again at this interval, and mark what has changed");
    watch->expected(0, 1)->type_name("TIME")->default_str("2s");
    add_file_argument(*command, context);
    command->callback([&context, watch] {
        context.command = [&context, watch] {
            return watch->count() > 0 ? show_again_and_again(context, time.empty() ? "2s" : time) : show_once(context);
        };
    });
}

}  // namespace shmnmctl
