// Notes a change in the page of the lock while it is made, so that the lock's next owner can name and complete the
// change of a killed caller. Only a thread that owns the lock notes anything. On Windows nothing is noted.
#pragma once

#include <array>

#include "change_steps.h"

namespace shmnm {

/// What a call is about to do, in the words of its note.
struct Change {
    NotedCall call;
    int32_t position = 0;
    const char* type = "";
    const char* name = "";
    std::array<int32_t, 3> words{};
    uint64_t value = 0;
    const void* data = nullptr;
    size_t size = 0;
};

/// The note of one call, open during the lifetime of this object.
class ChangeNote {
  public:
    /// @param[in] completable  whether the change can be completed from its note; if not, nothing is noted
    ChangeNote(const Region& region, bool completable, const Change& change) noexcept;
    ~ChangeNote();
    ChangeNote(const ChangeNote&) = delete;
    ChangeNote& operator=(const ChangeNote&) = delete;

    /// Drops what is kept of an older note: nothing that it names exists any more.
    void forget_older() const noexcept;
    /// Where the call's steps note their progress.
    Progress progress() const noexcept { return note_ ? Progress(&note_->progress) : Progress(); }

  private:
    Note* note_ = nullptr;
};

}  // namespace shmnm
