// "status": the picture or a part of it, once or again and again.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <utility>

#include "context.h"
#include "duration.h"
#include "machines.h"
#include "picture/decode.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/platform.h"
#include "picture/spelling.h"
#include "picture_text.h"
#include "region_source.h"
#include "screen.h"
#include "session.h"
#include "status_view.h"

namespace shmnmctl {
namespace {

/// The width that text has: that of the terminal, or what COLUMNS says, or without limit.
int columns(const session::Terminal& terminal) {
    if (terminal.columns > 0) return terminal.columns;
    const char* const variable = std::getenv("COLUMNS");
    const auto value = variable ? Value::parse(variable) : std::nullopt;
    const auto number = value ? value->to_int32() : std::nullopt;
    return std::max(number.value_or(0), 0);
}

/// The picture as text, with what a killed process has left before all else.
std::string page(const Snapshot& snapshot, const Sheet& sheet) {
    const session::Terminal terminal = session::terminal();
    std::string text;
    for (const std::string& warning : warnings(snapshot)) text += warning + "\n";
    const bool colors = terminal.is_terminal && wants_colors() && session::has_colors();
    return text + to_text(sheet, {.columns = columns(terminal), .colors = colors});
}

Exit show_once(const Context& context, const StatusOptions& options) {
    const Snapshot snapshot = look(context);
    const Picture picture = decode(snapshot);
    options.selection.expect_words(picture);
    const bool is_shown = !options.selection.has_condition() || options.selection.rows(picture).any();
    if (context.json()) {
        write_output(status_document(snapshot, picture, options.selection));
    } else if (is_shown) {
        write_output(page(snapshot, to_sheet(picture, options.selection, nullptr)));
    } else {
        throw Failure(Exit::no, "the condition holds for no row");
    }
    return is_shown ? Exit::done : Exit::no;
}

/// Writes a page, or a document, each time; for output that is not a screen.
Exit show_again_and_again(const Context& context, const StatusOptions& options) {
    RegionSource region(context);
    region.expect();
    std::optional<Picture> shown;
    do {
        std::string text = fmt::format("{}  every {}\n", platform::to_text(platform::wall_clock_us()),
                                       duration_text(options.interval_ms));
        try {
            const Snapshot snapshot = region.copy(Bytes::in_use);
            Picture picture = decode(snapshot);
            if (context.json()) {
                text = status_document(snapshot, picture, options.selection);
            } else {
                text += "\n" + page(snapshot, to_sheet(picture, options.selection, shown ? &*shown : &picture)) + "\n";
            }
            shown = std::move(picture);
        } catch (const Error& error) {
            // It may come back.
            if (error.kind != ErrorKind::no_region && error.kind != ErrorKind::lock_timeout) throw;
            const std::string problem = to_text(Failure(error), context.json());
            text = context.json() ? problem : text + problem + "\n";
            shown.reset();
        }
        write_output(text);
    } while (session::wait(options.interval_ms) != session::Wake::stop);
    return Exit::done;
}

Exit watch(const Context& context, const StatusOptions& options) {
    refuse_file(context, "use --watch without FILE");
    session::catch_stop();
    if (context.json() || !session::terminal().is_terminal) return show_again_and_again(context, options);
    RegionSource(context).expect();
    const std::unique_ptr<Screen> screen = Screen::open(wants_colors());
    return screen ? show_on_screen(context, options, *screen) : show_again_and_again(context, options);
}

/// Parts the keys from the one file that may be among them.
std::vector<std::string> take_file(std::vector<std::string> arguments, Context& context) {
    const auto first_file = std::stable_partition(arguments.begin(), arguments.end(), names_area);
    std::for_each(arguments.begin(), first_file, expect_prefix);
    for (auto file = first_file; file != arguments.end(); ++file) {
        if (!context.file.empty()) {
            throw Failure(Exit::usage, fmt::format("cannot read both {} and {}: name one dump",
                                                   shown_file(context.file), shown_file(*file)));
        }
        std::error_code error;
        // What is neither a file nor like a key is refused as a file.
        if (!std::filesystem::exists(platform::file(*file), error) && is_like_area(*file)) expect_prefix(*file);
        context.file = *file;
    }
    arguments.erase(first_file, arguments.end());
    return arguments;
}

}  // namespace

void add_status_command(CLI::App& app, Context& context) {
    static std::string time;
    static std::vector<std::string> arguments;
    static std::optional<std::string> only;
    static bool all_machines = false;
    CLI::App* const command = app.add_subcommand("status", "Show the whole picture, or a part of it");
    add_format(*command, context);
    CLI::Option* const watch_option =
        command->add_option("--watch", time, "Show it again at this interval, and mark what has changed");
    watch_option->expected(0, 1)->type_name("TIME")->default_str("2s");
    command->add_option("--only", only, "Only the rows whose words meet this condition, such as nodestat!=1")
        ->type_name("CONDITION");
    command->add_flag("--machines", all_machines, "What each machine of the cluster shows, side by side");
    add_file(*command, context);
    add_read_force(*command, context);
    command->add_option("PREFIX", arguments, "Only keys at or below these; FILE alone is the same as --file FILE");
    command->footer(
        "--only names words without the key of their row: \"nodestat!=1\", \"any svstat/*!=2\". It shows the tables "
        "whose\n"
        "rows have all of these words. Exit status 1: the condition holds for no row.");
    command->callback([&context, watch_option] {
        context.command = [&context, watch_option] {
            if (names_area(time)) arguments.push_back(std::exchange(time, ""));
            if (all_machines) {
                const bool is_alone = watch_option->count() == 0 && !only && arguments.empty() &&
                                      context.file.empty() && context.machines.empty();
                if (is_alone) return show_machines(context);
                throw Failure(Exit::usage,
                              "--machines shows whole machines: use it without other options and arguments, "
                              "or name one machine by --machine SERVER");
            }
            StatusOptions options{.selection = Selection(take_file(arguments, context), only)};
            if (watch_option->count() == 0) return show_once(context, options);
            options.interval_ms =
                time_ms({.name = "--watch", .least = "10ms", .most = "24h"}, time.empty() ? "2s" : time);
            return watch(context, options);
        };
    });
}

}  // namespace shmnmctl
