#include "change_note.h"

#include "frame.h"
#include "kernel.h"
#include "text.h"

namespace shmnm {
namespace {

template <size_t size>
void cut(char (&field)[size], const char* text) {
    std::memcpy(field, text, text_length(text, size));
}

/// Keeps the names of a killed caller's change, because its tables are about to change.
void supersede(Note& note, uint32_t process) {
    Note::Superseded& kept = note.superseded;
    const bool is_first = load(kept.state) != Note::open || kept.object != note.object;
    if (is_first) {
        store(kept.state, Note::closed);
        keep_order();
        Note::Superseded old{.state = Note::closed,
                             .call = note.call,
                             .process = note.process,
                             .position = note.position,
                             .object = note.object,
                             .superseded_by = process,
                             .reserved_692 = 0,
                             .type = {},
                             .name = {}};
        std::memcpy(old.type, note.type, sizeof old.type);
        std::memcpy(old.name, note.name, sizeof old.name);
        copy_words(reinterpret_cast<uint32_t*>(&kept), reinterpret_cast<const uint32_t*>(&old),
                   sizeof old / sizeof(uint32_t));
        keep_order();
        store(kept.state, Note::open);
        keep_order();
    }
    store(note.state, Note::closed);
}

/// Whether this change overwrites everything that the noted change left half done.
bool makes_good(const Change& change, const Note& note) {
    if (change.call != note.call) return false;
    if (change.call == NotedCall::setnpsimu) return true;
    return (change.call == NotedCall::settypehbstat || change.call == NotedCall::settypenpstat) &&
           std::strncmp(change.type, note.type, sizeof note.type) == 0;
}

/// A note without what it keeps of an older note.
constexpr size_t own_words = offsetof(Note, superseded) / sizeof(uint32_t);

}  // namespace

ChangeNote::ChangeNote(const Region& region, bool completable, const Change& change) noexcept {
    const kernel::Notepad notepad = kernel::notepad(region_mutex());
    if (!notepad.note) return;
    Note& note = *static_cast<Note*>(notepad.note);
    const uint32_t state = load(note.state);
    if (state == Note::open && note.object == region.object) {
        // A call that only sets values does not replace the note of a table that waits for repair.
        if (sets_values(change.call) && !sets_values(note.call)) return;
        if (!makes_good(change, note)) supersede(note, notepad.process);
    } else if (state > Note::open) {
        return;
    }
    keep_order();
    store(note.state, Note::closed);
    if (!completable) return;

    const shmnm_header& header = region.header();
    const Counts& counts = region.counts;
    Note next{};
    next.call = change.call;
    next.process = notepad.process;
    next.position = change.position;
    next.takes = notepad.takes;
    next.looks = notepad.looks;
    next.object = region.object;
    next.servers = counts.servers;
    next.hb = counts.hb;
    next.np = counts.np;
    next.fst = counts.fst;
    next.server_count = load(header.server_count);
    next.hb_count = load(header.hb_count);
    next.np_count = load(header.np_count);
    next.fst_pid_count = load(header.fst_pid_count);
    next.stride = load(header.max_servers);
    std::memcpy(next.words, change.words.data(), sizeof next.words);
    next.value = change.value;
    cut(next.type, change.type);
    cut(next.name, change.name);
    next.size = static_cast<uint32_t>(std::min(change.size, sizeof next.data));
    if (change.data) std::memcpy(next.data, change.data, next.size);
    copy_words(reinterpret_cast<uint32_t*>(&note), reinterpret_cast<const uint32_t*>(&next), own_words);
    note_ = &note;
    keep_order();
    store(note.state, Note::open);
    keep_order();
}

void ChangeNote::forget_older() const noexcept {
    if (note_) store(note_->superseded.state, Note::closed);
}

ChangeNote::~ChangeNote() {
    if (!note_) return;
    keep_order();
    store(note_->state, Note::closed);
}

}  // namespace shmnm
