#include "picture/repair.h"

#include <fmt/format.h>

#include "change_steps.h"
#include "picture/error.h"
#include "picture/live.h"
#include "picture/platform.h"

namespace picture {
namespace {

using shmnm::Note;

[[noreturn]] void refuse(ErrorKind kind, const std::string& why) {
    throw Error(kind, "nothing was changed: " + why);
}

/// How often the lock was taken since the noted take, other than by tools that only look.
uint64_t later_takes(const platform::LockHolder& holder, const Note& note) {
    return holder.takes - note.takes - (holder.looks - note.looks);
}

void complete(Note& note, const WritableRegion& writable, const platform::LockHolder& holder, bool force) {
    const shmnm::Counts counts{note.servers, note.hb, note.np, note.fst};
    const shmnm::Region region{writable.base(), writable.size(), counts, shmnm::Layout(counts), writable.object()};
    if (const uint64_t takes = later_takes(holder, note); takes > 0 && !force) {
        refuse(
            ErrorKind::change_in_doubt,
            fmt::format("the lock was taken {} {} since {}, so later calls may have set values in the wrong records",
                        takes, takes == 1 ? "time" : "times", sentence(interrupted_changes(note, note.object).back())));
    }
    if (!shmnm::can_complete(region, note)) {
        refuse(ErrorKind::change_lost, "the change cannot be completed from its note");
    }
    // If this process is killed too, the next repair finds the note as if the first caller had just been killed.
    note.takes = holder.takes;
    note.looks = holder.looks;
    shmnm::complete(region, note);
}

void close(Note& note) {
    shmnm::keep_order();
    shmnm::store(note.state, Note::closed);
}

}  // namespace

Repaired repair(const Access& access, bool force, bool discard) {
    LiveRegion region(access);
    region.expect();
    const Locked locked(region);
    const WritableRegion writable;
    // Counted as a look: a refused repair only looks, and a successful repair leaves no note to be counted from.
    platform::count_look(region.mutex());
    const auto holder = platform::lock_holder(region.mutex());
    auto* const note = static_cast<Note*>(platform::own_note(region.mutex()));
    if (!note || !holder) {  // branch: only Windows keeps no note
        refuse(ErrorKind::no_notes, "this system keeps no note of changes");
    }
    if (note->state > Note::open || note->superseded.state > Note::open) {
        refuse(ErrorKind::refused, "the note is of another version of the library: use the program of that version");
    }
    Repaired outcome;
    const std::vector<Interrupted> all = interrupted_changes(*note, writable.object());
    if (discard) {
        close(*note);
        shmnm::store(note->superseded.state, Note::closed);
        outcome.discarded = all;
        return outcome;
    }
    if (note->state == Note::open && note->object != writable.object()) {
        refuse(ErrorKind::note_outdated, "the note is of a region that has ended");
    }
    if (note->state == Note::open) {
        complete(*note, writable, *holder, force);
        outcome.completed.push_back(all.back());
        close(*note);
    } else if (!all.empty()) {
        refuse(ErrorKind::change_lost, sentence(all[0]) + ", so it cannot be completed any more");
    }
    return outcome;
}

}  // namespace picture
