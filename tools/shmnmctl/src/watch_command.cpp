// "watch": a line for each change of a word, from one copy of the region to the next.
#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "duration.h"
#include "picture/changes.h"
#include "picture/decode.h"
#include "picture/json.h"
#include "picture/keys.h"
#include "picture/platform.h"
#include "picture/spelling.h"
#include "region_source.h"
#include "session.h"

namespace shmnmctl {
namespace {

struct WatchOptions {
    std::string prefix;
    bool from_start = false;
    uint32_t interval_ms = 50;
};

/// Writes events with their time and number, a copy's at once.
class Reporter {
  public:
    explicit Reporter(const Context& context) : context_(context) {}

    void region(const char* event) {
        const char* const text = std::string_view(event) == "gone" ? "no process holds the region any more"
                                                                   : "the region was replaced by a new one";
        add("region", fmt::format("region {}: {}", event, text), {{"event", event}});
    }
    /// Steps that were not seen: at most so many, or nobody knows how many.
    void gap(std::optional<uint64_t> missed, uint64_t since_us) {
        const std::string since = platform::to_text(since_us);
        const std::string text = !missed ? fmt::format("gap: what changed since {} is shown as one step", since)
                                 : *missed == 1
                                     ? fmt::format("gap: up to 1 step since {} was not seen", since)
                                     : fmt::format("gap: up to {} steps since {} were not seen", *missed, since);
        add("gap", text, {{"missed", missed ? Json(*missed) : Json()}, {"since", since}});
    }
    void change(const WordChange& change) {
        const auto shown = [](const std::optional<Value>& value) { return value ? value->to_text() : "-"; };
        Json members = {{"key", change.key}};
        if (change.before) members["old"] = to_json(*change.before);
        if (change.after) members["new"] = to_json(*change.after);
        add("change", fmt::format("{} {} -> {}", change.key, shown(change.before), shown(change.after)), members);
    }
    void begin(uint64_t time_us) { time_ = platform::to_text(time_us); }
    void end() {
        if (!text_.empty()) write_output(text_);
        text_.clear();
    }

  private:
    void add(const char* kind, const std::string& text, const Json& members) {
        ++sequence_;
        if (!context_.json()) {
            text_ += fmt::format("{} {} {}\n", time_, sequence_, text);
            return;
        }
        Json event = document(kind);
        event["time"] = time_;
        event["seq"] = sequence_;
        event.update(members);
        text_ += line(event);
    }

    const Context& context_;
    std::string time_, text_;
    uint64_t sequence_ = 0;
};

/// What the last copy showed, and how many changes since then may have gone unseen.
class Watch {
  public:
    Watch(const Context& context, const WatchOptions& options)
        : options_(options), reporter_(context), from_nothing_(options.from_start) {}

    void see(std::optional<Snapshot> snapshot) {
        const uint64_t now_us = platform::wall_clock_us();
        reporter_.begin(now_us);
        if (!snapshot) {
            if (is_there_) reporter_.region("gone");
            is_there_ = false;
            forget();
        } else {
            if (!is_there_ || (last_ && last_->object != snapshot->object)) {
                reporter_.region("replaced");
                forget();
            }
            is_there_ = true;
            compare(*snapshot);
            last_ = std::move(snapshot);
        }
        reporter_.end();
        last_us_ = now_us;
    }

    /// Reports unseen steps that no later change has caused to be reported.
    void end() {
        reporter_.begin(platform::wall_clock_us());
        report_unseen();
        reporter_.end();
    }

  private:
    void forget() {
        last_.reset();
        words_.clear();
        marks_.clear();
        unseen_ = 0;
        from_nothing_ = true;
    }

    void compare(const Snapshot& snapshot) {
        std::vector<Word> marks = snapshot.bridge ? words(*snapshot.bridge) : std::vector<Word>();
        if (!last_) {
            words_ = region_words(snapshot);
            if (from_nothing_) report(changes({}, words_, options_.prefix));
            if (from_nothing_) report(changes({}, marks, options_.prefix));
            marks_ = std::move(marks);
            return;
        }
        compare_region(snapshot);
        // The bridge does not take the region's lock to change them: no step is missing.
        report(changes(marks_, marks, options_.prefix));
        marks_ = std::move(marks);
    }

    static std::vector<Word> region_words(const Snapshot& snapshot) {
        Picture picture = decode(snapshot);
        picture.bridge.reset();
        return words(picture);
    }

    void compare_region(const Snapshot& snapshot) {
        const std::optional<uint64_t> steps = steps_to(snapshot);
        std::vector<WordChange> found;
        if (last_->bytes != snapshot.bytes) {
            std::vector<Word> now = region_words(snapshot);
            found = changes(words_, now, options_.prefix);
            words_ = std::move(now);
        }
        // If the picture differs, the last of several steps is seen. If it is the same, the steps may have changed it
        // and changed it back: none of them is seen.
        if (steps && *steps > 1) add_unseen(*steps - (found.empty() ? 0 : 1));
        if (found.empty()) return;
        report_unseen();
        // Without a count of steps, some may be missing. A change without a counted step was made without the lock.
        if (!steps || *steps == 0) reporter_.gap(std::nullopt, last_us_);
        report(found);
    }

    std::optional<uint64_t> steps_to(const Snapshot& snapshot) const {
        if (!snapshot.steps || !last_->steps) return std::nullopt;
        return *snapshot.steps - *last_->steps;
    }

    void add_unseen(uint64_t steps) {
        if (unseen_ == 0) unseen_since_us_ = last_us_;
        unseen_ += steps;
    }
    void report_unseen() {
        if (unseen_ > 0) reporter_.gap(unseen_, unseen_since_us_);
        unseen_ = 0;
    }
    void report(const std::vector<WordChange>& found) {
        for (const WordChange& change : found) reporter_.change(change);
    }

    const WatchOptions& options_;
    Reporter reporter_;
    std::optional<Snapshot> last_;
    std::vector<Word> words_, marks_;  ///< of the region, and of the bridge
    uint64_t last_us_ = 0;
    uint64_t unseen_ = 0, unseen_since_us_ = 0;  ///< steps to report before the next change
    bool is_there_ = true;                       ///< the watch begins only if there is a region
    bool from_nothing_;                          ///< the first copy's words are all new
};

Exit watch(const Context& context, const WatchOptions& options) {
    // While the watch waits for the lock it does not notice a stop, so it never waits longer than this.
    constexpr uint32_t longest_lock_ms = 1'000;
    refuse_file(context, "list its words with \"shmnmctl list --file FILE\"");
    expect_prefix(options.prefix);
    session::catch_stop();
    RegionSource region(context);
    region.expect();
    Watch watch(context, options);
    for (bool stopped = false;;) {
        try {
            watch.see(region.try_copy(Bytes::in_use, longest_lock_ms));
        } catch (const Error& error) {
            // The next copy has the newest values, and a gap line says how many steps were missed.
            if (error.kind != ErrorKind::lock_timeout) throw;
        }
        // After a stop, one last copy shows what happened before it.
        if (stopped) break;
        const session::Wake wake = region.wait(options.interval_ms, {.closed_output = true});
        if (wake == session::Wake::closed_output) throw closed_output();
        stopped = wake == session::Wake::stop;
    }
    watch.end();
    return Exit::done;
}

}  // namespace

void add_watch_command(CLI::App& app, Context& context) {
    static WatchOptions options;
    CLI::App* const command = app.add_subcommand("watch", "Write a line for each change, as it happens");
    add_format(*command, context);
    add_file(*command, context)->group("");
    command->add_option("PREFIX", options.prefix, "Only keys at or below this one");
    command->add_flag("--from-start", options.from_start, "Begin with every word as it is");
    add_time(*command, options.interval_ms,
             {.name = "--interval", .help = "Time from one look to the next", .least = "1ms", .most = "1h"});
    command->callback([&] { context.command = [&] { return watch(context, options); }; });
}

}  // namespace shmnmctl
