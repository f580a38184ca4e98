// The marks of the bridge that runs on this machine, in shared memory of its own beside the region. It vanishes with
// the bridge.
#pragma once

#include <cstdint>
#include <optional>

#include "bridge_marks/page.h"

namespace bridge {

/// The shared memory's name, without the installation's namespace.
inline constexpr const char* marks_name = "oru_kzmshmnm_bridge_map";

/// A copy of the marks. Needs no lock and waits for nothing.
/// @return nothing: no bridge runs, or the bridge has written nothing for 2 s
/// @throws picture::Error  the shared memory is refused
std::optional<ReadMarks> read_live_marks();

/// The shared memory, for the bridge.
class LiveMarks {
  public:
    /// @throws picture::Error  it cannot be made
    LiveMarks();
    ~LiveMarks();
    LiveMarks(const LiveMarks&) = delete;
    LiveMarks& operator=(const LiveMarks&) = delete;

    void write(const Marks& marks);

  private:
    void* mapping_;
    MarksPage* page_;
};

}  // namespace bridge
