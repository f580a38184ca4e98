#include "picture/interrupted.h"

#include <fmt/format.h>

#include <cstring>
#include <string_view>

#include "picture/escape.h"
#include "picture/words.h"

namespace picture {
namespace {

using shmnm::Note;
using shmnm::NotedCall;

template <size_t size>
std::string text(const char (&field)[size]) {
    const std::string_view whole(field, size);
    return escaped(whole.substr(0, whole.find('\0')));
}

/// What a noted call did. {0}: the name; {1}: the type; {2}: the position; {3}: the kind of resource
struct Wording {
    NotedFunction function;
    const char* change;
};
/// The same for a call that each kind of resource has.
struct KindWording {
    NotedFunction ResourceKind::*function;
    const char* change;
};

// clang-format off
constexpr KindWording kind_wordings[] = {
    {&ResourceKind::noted_add,          "added {3} resource {1}/{0}"},
    {&ResourceKind::noted_remove,       "removed {3} resource {1}/{0}"},
    {&ResourceKind::noted_open_column,  "opened column {2} of the {3} resources"},
    {&ResourceKind::noted_close_column, "closed column {2} of the {3} resources"},
    {&ResourceKind::noted_describe,     "set the description of {3} resource {1}/{0}"},
    {&ResourceKind::noted_set_states,   "set the states of all {3} resources of type {1}"},
};
constexpr Wording wordings[] = {
    {{NotedCall::addnode,        "shmnm_addnode"},        "added server {0}"},
    {{NotedCall::rmnode,         "shmnm_rmnode"},         "removed server {0}"},
    {{NotedCall::addfstpid,      "shmnm_setfstrscpid"},   "added the process ids of {0}"},
    {{NotedCall::setfstpid,      "shmnm_setfstrscpid"},   "set a process id of {0}"},
    {{NotedCall::setmaxvalue,    "shmnm_setmaxvalue_ex"}, "set the maxima"},
    {{NotedCall::clear,          "shmnm_clear"},          "cleared the region"},
    {{NotedCall::setfstdescript, "shmnm_setfstdescript"}, "set the description of the fst resource"},
    {{NotedCall::setnpsimu,      "shmnm_setnpsimu"},      "set the simulation of a network partition"},
};
// clang-format on

template <typename Kept>
Interrupted interrupted(const Kept& kept, int32_t position) {
    const auto told = [&](const char* function, const char* change, const char* kind) -> Interrupted {
        return {.process = kept.process,
                .call = function,
                .change = fmt::format(fmt::runtime(change), text(kept.name), text(kept.type), position, kind)};
    };
    for (const Wording& wording : wordings) {
        if (wording.function.call == kept.call) return told(wording.function.name, wording.change, "");
    }
    for (const ResourceKind& kind : resource_kinds) {
        for (const KindWording& wording : kind_wordings) {
            const NotedFunction& function = kind.*wording.function;
            if (function.call == kept.call) return told(function.name, wording.change, kind.key);
        }
    }
    return told("unknown", "made a change that this version does not know", "");
}

}  // namespace

std::vector<Interrupted> interrupted_changes(const Note& note, uint64_t object) {
    std::vector<Interrupted> all;
    if (note.superseded.state == Note::open && note.superseded.object == object) {
        Interrupted old = interrupted(note.superseded, note.superseded.position);
        old.superseded = true;
        old.superseded_by = note.superseded.superseded_by;
        all.push_back(std::move(old));
    }
    if (note.state == Note::open && note.object == object) all.push_back(interrupted(note, note.position));
    return all;
}

std::vector<Interrupted> interrupted_in(const Snapshot& snapshot) {
    return snapshot.note ? interrupted_changes(*snapshot.note, snapshot.object) : std::vector<Interrupted>{};
}

std::vector<Interrupted> interrupted_changes_unlocked(void* mutex, uint64_t object) {
    const auto note = platform::note(mutex), again = platform::note(mutex);
    const auto holder = platform::lock_holder(mutex);
    if (!note || !again || !holder) return {};  // branch: only Windows keeps no note
    // A note that changes meanwhile is being written by a living caller.
    Note first = *note, second = *again;
    first.progress = second.progress = 0;
    if (std::memcmp(&first, &second, sizeof first) != 0) return {};
    std::vector<Interrupted> all = interrupted_changes(*note, object);
    const bool owner_is_at_it =
        holder->process == note->process && holder->takes == note->takes && !platform::has_ended(*holder);
    if (owner_is_at_it && !all.empty() && !all.back().superseded) all.pop_back();
    return all;
}

std::string sentence(const Interrupted& one) {
    std::string text = fmt::format("process {} was killed while it {}", one.process, one.change);
    if (one.superseded) text += fmt::format(", and process {} has changed the region since", one.superseded_by);
    return text;
}

}  // namespace picture
