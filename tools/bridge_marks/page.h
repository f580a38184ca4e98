// The marks in a mapping of the bridge's own, for status, page and metrics. Its layout is a format: other builds read
// it. The writer makes `sequence` odd, writes, and makes it even again; a reader repeats its copy until it has found
// the same even number before and after. If `sequence` stands still for 2 s, there is no bridge; `written_us` tells
// that at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "bridge_marks/marks.h"

namespace bridge {

inline constexpr uint32_t marks_magic = 0x4b4d5342;  // "BSMK"
inline constexpr uint32_t marks_version = 1;
inline constexpr size_t marked_servers = 256, marked_words = 256;
inline constexpr uint64_t marks_stand_still_ms = 2'000;

struct MarksHeader {
    uint32_t magic, version;
    uint64_t sequence;  ///< odd while the marks are written; moves with every step of the bridge
    uint32_t size;      ///< of the mapping
    uint32_t connected, running, refused, fed;  ///< 0 or 1
    uint32_t servers;                           ///< how many follow
    uint32_t contested, unmatched;              ///< how many words follow, the contested ones first
    uint32_t lost_words;                        ///< words for which there was no room
    uint32_t lost_servers;                      ///< servers for which there was no room
    uint64_t proposed, accepted, lost, replaced;
    uint64_t written_us;       ///< of the machine's monotonic clock
    int64_t limit_ms;          ///< a server is not fresh at this age, even if the bridge stands still; 0: not known
    uint64_t longest_hold_us;  ///< for which the bridge has held the region's lock
    uint8_t reserved_112[16];
    char server[768];   ///< this machine's own, escaped, zero-padded
    char cluster[128];  ///< cut
    char member[128];   ///< cut
};
struct MarkedServer {
    char name[768];     ///< escaped, zero-padded; the longest name, each byte escaped
    char address[128];  ///< cut
    uint32_t freshness;
    uint32_t flags;  ///< 1: claimed, 2: unmatched, 4: duplicate priority, 8: other names, 16: other times
    int64_t age_ms;  ///< -1: not known
    uint64_t state_sequence;
    uint64_t reserved_920;
};
struct MarkedWord {
    char key[256];  ///< cut
};
struct MarksPage {
    MarksHeader header;
    MarkedServer servers[marked_servers];
    MarkedWord words[marked_words];
};

#define SHMNM_PIN_MARK(record, field, at) static_assert(offsetof(record, field) == (at))
SHMNM_PIN_MARK(MarksHeader, magic, 0);
SHMNM_PIN_MARK(MarksHeader, version, 4);
SHMNM_PIN_MARK(MarksHeader, sequence, 8);
SHMNM_PIN_MARK(MarksHeader, size, 16);
SHMNM_PIN_MARK(MarksHeader, connected, 20);
SHMNM_PIN_MARK(MarksHeader, running, 24);
SHMNM_PIN_MARK(MarksHeader, refused, 28);
SHMNM_PIN_MARK(MarksHeader, fed, 32);
SHMNM_PIN_MARK(MarksHeader, servers, 36);
SHMNM_PIN_MARK(MarksHeader, contested, 40);
SHMNM_PIN_MARK(MarksHeader, unmatched, 44);
SHMNM_PIN_MARK(MarksHeader, lost_words, 48);
SHMNM_PIN_MARK(MarksHeader, lost_servers, 52);
SHMNM_PIN_MARK(MarksHeader, proposed, 56);
SHMNM_PIN_MARK(MarksHeader, accepted, 64);
SHMNM_PIN_MARK(MarksHeader, lost, 72);
SHMNM_PIN_MARK(MarksHeader, replaced, 80);
SHMNM_PIN_MARK(MarksHeader, written_us, 88);
SHMNM_PIN_MARK(MarksHeader, limit_ms, 96);
SHMNM_PIN_MARK(MarksHeader, longest_hold_us, 104);
SHMNM_PIN_MARK(MarksHeader, server, 128);
SHMNM_PIN_MARK(MarksHeader, cluster, 896);
SHMNM_PIN_MARK(MarksHeader, member, 1024);
static_assert(sizeof(MarksHeader) == 1152);
SHMNM_PIN_MARK(MarkedServer, address, 768);
SHMNM_PIN_MARK(MarkedServer, freshness, 896);
SHMNM_PIN_MARK(MarkedServer, flags, 900);
SHMNM_PIN_MARK(MarkedServer, age_ms, 904);
SHMNM_PIN_MARK(MarkedServer, state_sequence, 912);
static_assert(sizeof(MarkedServer) == 928);
SHMNM_PIN_MARK(MarksPage, servers, 1152);
SHMNM_PIN_MARK(MarksPage, words, 1152 + 928 * 256);
static_assert(sizeof(MarksPage) == 1152 + 928 * 256 + 256 * 256);
static_assert(std::is_trivially_copyable_v<MarksPage>);
#undef SHMNM_PIN_MARK

/// Writes the marks. Only one thread writes a page. A new page is zeros.
void write_marks(MarksPage& page, const Marks& marks, uint64_t now_us);

struct ReadMarks {
    Marks marks;
    uint64_t sequence = 0;
    uint64_t written_us = 0;    ///< of the machine's monotonic clock
    uint64_t lost_words = 0;    ///< contested and unmatched words for which there was no room
    uint64_t lost_servers = 0;  ///< servers for which there was no room
};
/// Reads a page that another process may be writing. @return nothing if it is of another format, or was written at each
/// try
std::optional<ReadMarks> read_marks(const MarksPage& page);

/// What marks say that were written so long ago: ages go on growing, and end freshness, while the bridge stands still.
void make_older(Marks& marks, uint64_t passed_us);

}  // namespace bridge
