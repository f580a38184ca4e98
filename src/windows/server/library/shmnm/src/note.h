// The note of a change in progress: what a call is about to do to the region, and how much of it is done. It lies in
// the page of the lock's mutex, so it stays if the caller is killed. Processes of different builds share its format,
// which is not part of the library's interface. docs/region-format.md describes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace shmnm {

/// The calls that note what they do.
enum class NotedCall : uint32_t {
    none,
    addnode,
    rmnode,
    addhbrsc,
    addnprsc,
    rmhbrsc,
    rmnprsc,
    addhbrscsvstat,
    addnprscsvstat,
    rmhbrscsvstat,
    rmnprscsvstat,
    addfstpid,  ///< shmnm_setfstrscpid() with a new name
    setmaxvalue,
    clear,
    // From here on, calls that set values: even if they are interrupted, the tables are whole.
    setfstpid,  ///< shmnm_setfstrscpid() with a name that has a record
    sethbdescript,
    setnpdescript,
    setfstdescript,
    settypehbstat,
    settypenpstat,
    setnpsimu
};
constexpr bool sets_values(NotedCall call) noexcept {
    return call >= NotedCall::setfstpid;
}

/// The steps of a removal, in their order. Every step can be made again.
enum class Phase : uint8_t {
    records,     ///< record `record` + 1, with an hb resource's network-wide row, is copied onto record `record`
    last,        ///< the last record is zeroed, and its network-wide row if a row was moved
    count,       ///< the new number of records is stored in the header
    hb_columns,  ///< column step `word` of hb resource `record`
    np_columns   ///< column step `word` of np resource `record`
};
/// How much of a change is done, in one word so that it is noted in one store.
struct Stage {
    Phase phase = Phase::records;
    int32_t record = 0, word = 0;  ///< below 2^28, as in every region that a view can hold

    constexpr uint64_t packed() const noexcept {
        return uint64_t{static_cast<uint8_t>(phase)} << 56 | uint64_t{static_cast<uint32_t>(record)} << 28 |
               static_cast<uint32_t>(word);
    }
    static constexpr Stage unpacked(uint64_t word) noexcept {
        constexpr uint64_t mask = (uint64_t{1} << 28) - 1;
        return {static_cast<Phase>(word >> 56), static_cast<int32_t>(word >> 28 & mask),
                static_cast<int32_t>(word & mask)};
    }
};

struct Note {
    static constexpr uint32_t closed = 0,
                              open = 1;  ///< any other state belongs to a format that this build does not know

    uint32_t state;  ///< written last
    NotedCall call;
    uint32_t process;  ///< its caller
    int32_t position;  ///< of the record, or the index of the column
    uint64_t progress;
    uint64_t takes;                ///< of the lock, up to the caller's
    uint64_t looks;                ///< how many of these takes were by tools that only looked
    uint64_t object;               ///< the mapping's number
    int32_t servers, hb, np, fst;  ///< the counts that the region was mapped by
    int32_t server_count, hb_count, np_count, fst_pid_count;  ///< as they were before
    int32_t stride;                                           ///< the header's maximum of servers
    int32_t words[3];          ///< what is stored: a priority; three maxima; a kind and a process id
    uint64_t value;            ///< the 64-bit value beside a process id
    char type[32], name[256];  ///< zero-padded, cut, not always with a NUL
    uint32_t size;             ///< of `data`
    uint8_t data[256];         ///< a description
    uint32_t reserved_652[3];

    /// A change that was left open before the tables were changed again: it can no longer be completed. The first such
    /// change is kept.
    struct Superseded {
        uint32_t state;
        NotedCall call;
        uint32_t process;
        int32_t position;
        uint64_t object;
        uint32_t superseded_by;  ///< process id of the next caller
        uint32_t reserved_692;
        char type[32], name[256];
    } superseded;
    uint8_t reserved_984[40];
};

static_assert(std::is_trivially_copyable_v<Note> && sizeof(Note) == 1024);
#define SHMNM_PIN_NOTE(field, at) static_assert(offsetof(Note, field) == (at))
SHMNM_PIN_NOTE(state, 0);
SHMNM_PIN_NOTE(call, 4);
SHMNM_PIN_NOTE(process, 8);
SHMNM_PIN_NOTE(position, 12);
SHMNM_PIN_NOTE(progress, 16);
SHMNM_PIN_NOTE(takes, 24);
SHMNM_PIN_NOTE(looks, 32);
SHMNM_PIN_NOTE(object, 40);
SHMNM_PIN_NOTE(servers, 48);
SHMNM_PIN_NOTE(hb, 52);
SHMNM_PIN_NOTE(np, 56);
SHMNM_PIN_NOTE(fst, 60);
SHMNM_PIN_NOTE(server_count, 64);
SHMNM_PIN_NOTE(hb_count, 68);
SHMNM_PIN_NOTE(np_count, 72);
SHMNM_PIN_NOTE(fst_pid_count, 76);
SHMNM_PIN_NOTE(stride, 80);
SHMNM_PIN_NOTE(words, 84);
SHMNM_PIN_NOTE(value, 96);
SHMNM_PIN_NOTE(type, 104);
SHMNM_PIN_NOTE(name, 136);
SHMNM_PIN_NOTE(size, 392);
SHMNM_PIN_NOTE(data, 396);
SHMNM_PIN_NOTE(superseded, 664);
SHMNM_PIN_NOTE(superseded.object, 680);
SHMNM_PIN_NOTE(superseded.superseded_by, 688);
SHMNM_PIN_NOTE(superseded.type, 696);
SHMNM_PIN_NOTE(superseded.name, 728);
SHMNM_PIN_NOTE(reserved_984, 984);
#undef SHMNM_PIN_NOTE

}  // namespace shmnm
