// What happened to the picture since this server started, step by step, and the events that bring a client up to date.
// A step is what one look found changed. A client that missed steps gets them merged into one event, or the whole
// picture if they are too many.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "look.h"
#include "picture/changes.h"

namespace shmnmweb {

class History {
  public:
    /// @param[in] run  tells this run of the server from every other
    explicit History(std::string run) : run_(std::move(run)) {}

    /// Takes in a look. @return whether clients have something new to be told
    bool add(std::shared_ptr<const Look> look);

    /// Of the newest step; 0 before the first look.
    uint64_t sequence() const { return sequence_; }
    /// How often a region was seen to be another than the one before.
    uint64_t replacements() const { return replacements_; }
    const std::string& run() const { return run_; }

    /// The event that brings a client up to date: changes, or the whole picture.
    /// @param[in] seen  the last step that the client knows; nothing if it knows none
    /// @return null if it knows the newest step
    std::shared_ptr<const std::string> event_after(std::optional<uint64_t> seen);
    /// The event that says that all is as it was.
    std::string alive_event() const;

    /// The step that an event's id names; nothing if it is of another run, or not an id.
    std::optional<uint64_t> step_of(std::string_view id) const;

  private:
    struct Entry {
        uint64_t time_us = 0, sequence = 0;
        const char* event = nullptr;  ///< "created", "gone", "replaced"; null: a change
        picture::WordChange change;
    };
    struct Step {
        uint64_t sequence = 0;
        bool is_whole = false;  ///< more than words changed
        std::vector<picture::WordChange> changes;
    };

    void add_step(Step step);
    void remember(Entry entry);
    std::string picture_event(uint64_t merged) const;
    std::string changes_event(uint64_t seen) const;

    std::string run_;
    std::shared_ptr<const Look> look_;
    uint64_t sequence_ = 0, replacements_ = 0, remembered_changes_ = 0;
    bool had_region_ = false;
    std::deque<Step> steps_;       ///< the newest ones, without a gap
    std::deque<Entry> last_ones_;  ///< what the page shows as the latest changes
    /// The events that most clients ask for.
    std::shared_ptr<const std::string> whole_, newest_step_;
};

}  // namespace shmnmweb
