#include "picture/interrupted.h"

#include <fmt/format.h>

#include <cstring>
#include <string_view>

#include "picture/escape.h"

namespace picture {
namespace {

using shmnm::Note;
using shmnm::NotedCall;

template <size_t size>
std::string text(const char (&field)[size]) {
    const std::string_view whole(field, size);
    return escaped(whole.substr(0, whole.find('\0')));
}

struct Wording {
    const char* call;
    const char* change;  ///< {0}: the name; {1}: the type; {2}: the position
};

Wording wording(NotedCall call) {
    switch (call) {
        case NotedCall::addnode:
            return {"shmnm_addnode", "added server {0}"};
        case NotedCall::rmnode:
            return {"shmnm_rmnode", "removed server {0}"};
        case NotedCall::addhbrsc:
            return {"shmnm_addhbrsc", "added hb resource {1}/{0}"};
        case NotedCall::addnprsc:
            return {"shmnm_addnprsc", "added np resource {1}/{0}"};
        case NotedCall::rmhbrsc:
            return {"shmnm_rmhbrsc", "removed hb resource {1}/{0}"};
        case NotedCall::rmnprsc:
            return {"shmnm_rmnprsc", "removed np resource {1}/{0}"};
        case NotedCall::addhbrscsvstat:
            return {"shmnm_addhbrscsvstat", "opened column {2} of the hb resources"};
        case NotedCall::addnprscsvstat:
            return {"shmnm_addnprscsvstat", "opened column {2} of the np resources"};
        case NotedCall::rmhbrscsvstat:
            return {"shmnm_rmhbrscsvstat", "closed column {2} of the hb resources"};
        case NotedCall::rmnprscsvstat:
            return {"shmnm_rmnprscsvstat", "closed column {2} of the np resources"};
        case NotedCall::addfstpid:
            return {"shmnm_setfstrscpid", "added the process ids of {0}"};
        case NotedCall::setfstpid:
            return {"shmnm_setfstrscpid", "set a process id of {0}"};
        case NotedCall::setmaxvalue:
            return {"shmnm_setmaxvalue_ex", "set the maxima"};
        case NotedCall::clear:
            return {"shmnm_clear", "cleared the region"};
        case NotedCall::sethbdescript:
            return {"shmnm_sethbdescript", "set the description of hb resource {1}/{0}"};
        case NotedCall::setnpdescript:
            return {"shmnm_setnpdescript", "set the description of np resource {1}/{0}"};
        case NotedCall::setfstdescript:
            return {"shmnm_setfstdescript", "set the description of the fst resource"};
        case NotedCall::settypehbstat:
            return {"shmnm_settypehbstat", "set the states of all hb resources of type {1}"};
        case NotedCall::settypenpstat:
            return {"shmnm_settypenpstat", "set the states of all np resources of type {1}"};
        case NotedCall::setnpsimu:
            return {"shmnm_setnpsimu", "set the simulation of a network partition"};
        case NotedCall::none:
            break;
    }
    return {"unknown", "made a change that this version does not know"};
}

template <typename Kept>
Interrupted interrupted(const Kept& kept, int32_t position) {
    const Wording words = wording(kept.call);
    return {.process = kept.process,
            .call = words.call,
            .change = fmt::format(fmt::runtime(words.change), text(kept.name), text(kept.type), position)};
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
    if (!note || !again || !holder) return {};
    // One that is being written is of a caller that lives.
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
