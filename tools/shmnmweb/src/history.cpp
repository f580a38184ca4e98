#include "history.h"

#include <fmt/format.h>

#include <charconv>
#include <unordered_map>
#include <utility>

#include "picture/json.h"

namespace shmnmweb {
namespace {

using picture::Json;
using picture::WordChange;
namespace platform = picture::platform;

/// How many changes the page can list.
constexpr size_t listed_changes = 200;
/// How much is kept for clients that fall behind or come back.
constexpr size_t kept_steps = 2'000, kept_changes = 20'000;

/// Changes one after the other as one: of each key the first value before and the last one after.
class Merge {
  public:
    void add(const WordChange& change) {
        const auto [known, is_new] = places_.try_emplace(change.key, merged_.size());
        if (is_new) {
            merged_.push_back(change);
        } else {
            merged_[known->second].after = change.after;
        }
    }
    std::vector<WordChange> take() {
        std::erase_if(merged_, [](const WordChange& change) { return change.before == change.after; });
        return std::move(merged_);
    }

  private:
    std::vector<WordChange> merged_;
    std::unordered_map<std::string, size_t> places_;
};

void add_change(Json& target, const WordChange& change) {
    target["key"] = change.key;
    if (change.before) target["old"] = picture::to_json(*change.before);
    if (change.after) target["new"] = picture::to_json(*change.after);
}

std::string event(const char* kind, const std::string& id, const Json& document) {
    return fmt::format("id: {}\nevent: {}\ndata: {}\n\n", id, kind, document.dump());
}

std::string id_of(const std::string& run, uint64_t sequence) {
    return fmt::format("{}-{}", run, sequence);
}

Json document(const char* kind, const std::string& run, uint64_t sequence, uint64_t time_us) {
    Json made = picture::document(kind);
    made["run"] = run;
    made["sequence"] = sequence;
    made["time"] = platform::to_text(time_us);
    return made;
}

std::vector<picture::Word> words_of(const Look& look) {
    return look.bridge ? picture::words(*look.bridge) : std::vector<picture::Word>();
}

/// What the document shows of the bridge and no word tells.
std::string texts_of(const Look& look) {
    if (!look.bridge) return {};
    picture::Bridge bridge = *look.bridge;
    bridge.is_up = false;
    bridge.stopped_us = 0;
    bridge::Marks& marks = bridge.marks;
    marks.is_connected = marks.is_running = marks.is_refused = marks.is_fed = false;
    marks.agreed = {};
    for (bridge::Mark& mark : marks.servers) {
        mark.freshness = bridge::Freshness::unknown;
        mark.age = -1;
        mark.sequence = 0;
        mark.is_claimed = false;
    }
    return picture::to_json_text(bridge);
}

}  // namespace

bool History::add(std::shared_ptr<const Look> look) {
    const std::shared_ptr<const Look> before = std::exchange(look_, std::move(look));
    const Content* const old = before ? before->content.get() : nullptr;
    const Content* const now = look_->content.get();
    const uint64_t sequence = sequence_ + 1;
    Step step{.sequence = sequence, .is_whole = false, .changes = {}};
    bool is_new = !before || before->problem != look_->problem;
    step.is_whole = is_new;
    if (now != old) {
        const bool is_another = now && had_region_ && (!old || now->snapshot.object != old->snapshot.object);
        if (!now || !old || is_another) {
            step.is_whole = is_new = true;
            if (is_another) ++replacements_;
            const char* const what = !now ? "gone" : is_another ? "replaced" : before ? "created" : nullptr;
            if (what) remember({.time_us = look_->time_us, .sequence = sequence, .event = what, .change = {}});
        } else {
            step.changes = picture::changes(old->words, now->words, "");
            step.is_whole = step.is_whole || old->structure != now->structure;
            is_new = step.is_whole || !step.changes.empty();
            for (const WordChange& change : step.changes) {
                remember({.time_us = look_->time_us, .sequence = sequence, .event = nullptr, .change = change});
            }
        }
        had_region_ = had_region_ || now;
    }
    const bool has_new_marks = now && old && before->bridge_version != look_->bridge_version;
    if (has_new_marks && !step.is_whole) {
        std::vector<WordChange> marks = picture::changes(words_of(*before), words_of(*look_), "");
        step.is_whole = texts_of(*before) != texts_of(*look_);
        is_new = is_new || step.is_whole || !marks.empty();
        for (WordChange& change : marks) {
            remember({.time_us = look_->time_us, .sequence = sequence, .event = nullptr, .change = change});
            step.changes.push_back(std::move(change));
        }
    }
    if (is_new) add_step(std::move(step));
    return is_new;
}

void History::add_step(Step step) {
    sequence_ = step.sequence;
    remembered_changes_ += step.changes.size();
    steps_.push_back(std::move(step));
    while (steps_.size() > kept_steps || (remembered_changes_ > kept_changes && steps_.size() > 1)) {
        remembered_changes_ -= steps_.front().changes.size();
        steps_.pop_front();
    }
    whole_.reset();
    newest_step_.reset();
}

void History::remember(Entry entry) {
    last_ones_.push_back(std::move(entry));
    if (last_ones_.size() > listed_changes) last_ones_.pop_front();
}

std::shared_ptr<const std::string> History::event_after(std::optional<uint64_t> seen) {
    if (seen == sequence_) return nullptr;
    const bool is_known = seen && !steps_.empty() && *seen + 1 >= steps_.front().sequence;
    bool is_whole = !is_known;
    if (is_known) {
        for (auto step = steps_.rbegin(); step != steps_.rend() && step->sequence > *seen; ++step) {
            is_whole = is_whole || step->is_whole;
        }
    }
    const uint64_t merged = seen ? sequence_ - *seen - 1 : 0;
    if (is_whole && merged == 0) {
        if (!whole_) whole_ = std::make_shared<const std::string>(picture_event(0));
        return whole_;
    }
    if (is_whole) return std::make_shared<const std::string>(picture_event(merged));
    if (merged > 0) return std::make_shared<const std::string>(changes_event(*seen));
    if (!newest_step_) newest_step_ = std::make_shared<const std::string>(changes_event(*seen));
    return newest_step_;
}

std::string History::picture_event(uint64_t merged) const {
    const Content* const content = look_ ? look_->content.get() : nullptr;
    Json made = document("picture", run_, sequence_, look_ ? look_->time_us : platform::wall_clock_us());
    made["merged"] = merged;
    made["stale"] = nullptr;
    if (look_ && look_->problem) {
        made["stale"] = {{"since", look_->copied_us == 0 ? Json() : Json(platform::to_text(look_->copied_us))},
                         {"message", look_->problem->message}};
    }
    made["history"] = Json::array();
    for (const Entry& entry : last_ones_) {
        Json one{{"time", platform::to_text(entry.time_us)}, {"sequence", entry.sequence}};
        if (entry.event) {
            one["event"] = entry.event;
        } else {
            add_change(one, entry.change);
        }
        made["history"].push_back(std::move(one));
    }
    made["picture"] = content ? picture::to_json(content->snapshot, content->decoded) : Json();
    if (content && look_->bridge) made["picture"]["bridge"] = Json::parse(picture::to_json_text(*look_->bridge));
    return event("picture", id_of(run_, sequence_), made);
}

std::string History::changes_event(uint64_t seen) const {
    Merge merge;
    for (const Step& step : steps_) {
        if (step.sequence <= seen) continue;
        for (const WordChange& change : step.changes) merge.add(change);
    }
    Json made = document("changes", run_, sequence_, look_->time_us);
    made["merged"] = sequence_ - seen - 1;
    made["changes"] = Json::array();
    for (const WordChange& change : merge.take()) {
        Json one = Json::object();
        add_change(one, change);
        made["changes"].push_back(std::move(one));
    }
    return event("changes", id_of(run_, sequence_), made);
}

std::string History::alive_event() const {
    Json made = picture::document("alive");
    made["time"] = platform::to_text(platform::wall_clock_us());
    made["copied"] = look_ && look_->copied_us > 0 ? Json(platform::to_text(look_->copied_us)) : Json();
    return fmt::format("event: alive\ndata: {}\n\n", made.dump());
}

std::optional<uint64_t> History::step_of(std::string_view id) const {
    const size_t dash = id.rfind('-');
    if (dash == std::string_view::npos || id.substr(0, dash) != run_) return std::nullopt;
    const std::string_view number = id.substr(dash + 1);
    uint64_t sequence = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), sequence);
    if (error != std::errc{} || end != number.data() + number.size() || sequence > sequence_) return std::nullopt;
    return sequence;
}

}  // namespace shmnmweb
