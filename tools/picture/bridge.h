// The bridge between machines as a reader finds it: whether it runs, and its marks. They stand beside the region, in
// shared memory that ends with the bridge.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bridge_marks/page.h"

namespace picture {

struct Bridge {
    bool is_up = false;         ///< it runs and writes its marks
    uint64_t stopped_us = 0;    ///< for how long its marks have stood still although they are there; 0: they have not
    bridge::Marks marks;        ///< their ages count until they were read; if the bridge is not up, all are unknown
    uint64_t left_out = 0;      ///< contested and unmatched words for which there was no room
    uint64_t lost_servers = 0;  ///< servers for which there was none, so that they have no mark

    /// Whether there are marks.
    // branch: taken in the tests' own copy of this inline function, which is not counted
    bool is_there() const { return is_up || stopped_us > 0; }
};

/// "fresh", "silent" or "unknown".
const char* name_of(bridge::Freshness freshness);

/// The mark of a server, by its escaped name; null: it has none.
const bridge::Mark* find_mark(const Bridge& bridge, std::string_view server);

/// Makes all texts printable and drops marks of names that are not escaped ones: other machines wrote them.
void make_safe(bridge::Marks& marks);

/// Whether two readings say the same but for what moves all the time: ages and revisions.
bool say_the_same(const Bridge& one, const Bridge& other);

/// Reads the marks of this machine's bridge again and again.
class BridgeReader {
  public:
    /// Takes no lock. The first read of a bridge that was stopped within a write takes 2 s; no other read waits.
    Bridge read();

  private:
    std::optional<bridge::ReadMarks> last_;  ///< of the bridge that is there
};

}  // namespace picture
