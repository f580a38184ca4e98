// "watch": a line for each change of a word, from one copy of the region to the next.
#include <fmt/format.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "context.h"
#include "picture_json.h"
#include "platform.h"
#include "words.h"

namespace shmnmctl {
namespace {

struct Options {
    std::string prefix;
    bool from_start = false;
    uint32_t interval_ms = 50;
};

struct Change {
    std::string key;
    std::optional<Value> before, after;  ///< none: there was no such key, or there is none any more
};

/// In the order of the new words; then the keys that are gone, in their old order.
std::vector<Change> changes(const std::vector<Word>& before, const std::vector<Word>& after,
                            const std::string& prefix) {
    std::unordered_map<std::string_view, const Word*> old;
    for (const Word& word : before) old.emplace(word.key, &word);
    std::vector<Change> found;
    for (const Word& word : after) {
        const auto known = old.find(word.key);
        std::optional<Value> was;
        if (known != old.end()) {
            was = known->second->value;
            old.erase(known);
        }
        if (was != word.value && is_below(word.key, prefix)) found.push_back({word.key, was, word.value});
    }
    for (const Word& word : before) {
        if (old.contains(word.key) && is_below(word.key, prefix)) found.push_back({word.key, word.value, std::nullopt});
    }
    return found;
}

/// Writes events with their time and number, a copy's at once.
class Reporter {
  public:
    explicit Reporter(const Context& context) : context_(context) {}

    void region(const char* event) {
        const char* const text = std::string_view(event) == "gone" ? "no process holds the region any more"
                                                                   : "the region was replaced by a new one";
        add("region", fmt::format("region {}: {}", event, text), {{"event", event}});
    }
    /// Steps between two copies were shown as one: at most so many, or nobody knows how many.
    void gap(std::optional<uint64_t> missed, uint64_t since_us) {
        const std::string since = platform::to_text(since_us);
        const std::string text = missed ? fmt::format("gap: up to {} steps since {} were not seen", *missed, since)
                                        : fmt::format("gap: what changed since {} is shown as one step", since);
        add("gap", text, {{"missed", missed ? Json(*missed) : Json()}, {"since", since}});
    }
    void change(const Change& change) {
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

/// What was known at the last copy.
class Watch {
  public:
    Watch(const Context& context, const Options& options) : options_(options), reporter_(context) {}

    void see(std::optional<Snapshot> snapshot) {
        const uint64_t now = platform::wall_clock_us();
        reporter_.begin(now);
        if (!snapshot) {
            if (last_) reporter_.region("gone");
            forget();
        } else {
            if (was_there_ && (!last_ || last_->object != snapshot->object)) {
                reporter_.region("replaced");
                forget();
            }
            compare(*snapshot);
            was_there_ = true;
            last_ = std::move(snapshot);
        }
        reporter_.end();
        last_us_ = now;
    }

  private:
    void forget() {
        last_.reset();
        words_.clear();
        from_nothing_ = was_there_ || options_.from_start;
    }

    void compare(const Snapshot& snapshot) {
        if (last_ && last_->bytes == snapshot.bytes) return;
        std::vector<Word> now = words(decode(snapshot));
        const bool first = !last_;
        if (!first || from_nothing_ || options_.from_start) {
            const std::vector<Change> found = changes(words_, now, options_.prefix);
            if (!first && !found.empty()) report_gap(snapshot);
            for (const Change& change : found) reporter_.change(change);
        }
        words_ = std::move(now);
    }

    /// Each take of the lock by another process may have been a step. One is the one that is seen; none means that
    /// somebody writes without the lock.
    void report_gap(const Snapshot& snapshot) {
        if (!snapshot.lock_takes || !last_->lock_takes) return reporter_.gap(std::nullopt, last_us_);
        const uint64_t others = *snapshot.lock_takes - *last_->lock_takes - 1;
        if (others == 0) return reporter_.gap(std::nullopt, last_us_);
        if (others > 1) reporter_.gap(others - 1, last_us_);
    }

    const Options& options_;
    Reporter reporter_;
    std::optional<Snapshot> last_;
    std::vector<Word> words_;
    uint64_t last_us_ = 0;
    bool was_there_ = false;
    bool from_nothing_ = false;  ///< a region that came in another's place is shown from nothing on
};

Exit watch(const Context& context, const Options& options) {
    platform::catch_stop();
    LiveRegion region(context.access);
    region.expect();
    Watch watch(context, options);
    do {
        try {
            watch.see(region.try_copy());
        } catch (const Failure& failure) {
            // The next copy shows what it can, and says what was missed.
            if (failure.exit != Exit::timeout) throw;
        }
    } while (!platform::stopped_within(options.interval_ms));
    return Exit::done;
}

}  // namespace

void add_watch_command(CLI::App& app, Context& context) {
    static Options options;
    CLI::App* const command = app.add_subcommand("watch", "Write a line for each change, as it happens");
    add_format(*command, context);
    command->add_option("PREFIX", options.prefix, "Only keys at or below this one");
    command->add_flag("--from-start", options.from_start, "Begin with every word as it is");
    command->add_option("--interval", options.interval_ms, "Milliseconds from one look to the next")
        ->check(CLI::Range(1, 3'600'000))
        ->capture_default_str();
    command->callback([&] { context.command = [&] { return watch(context, options); }; });
}

}  // namespace shmnmctl
