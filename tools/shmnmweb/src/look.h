// What one look at the region has found: a copy with all that is decoded from it, or why there is none. Looks never
// change once they are made, so that any number of answers can be written from one.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "picture/decode.h"
#include "picture/error.h"
#include "picture/keys.h"
#include "picture/platform.h"
#include "picture/snapshot.h"

namespace shmnmweb {

/// A copy of the region and what is decoded from it, without the bridge, whose marks age. What few clients ask for is
/// made when it is first asked for.
class Content {
  public:
    explicit Content(picture::Snapshot copy);

    const picture::Snapshot snapshot;
    const picture::Picture decoded;
    const std::vector<picture::Word> words;
    /// All that the document shows and no word tells: records and their order, descriptions, counts. The whole document
    /// if records share a name.
    const std::string structure;

    /// The document "status", as shmnmctl writes it.
    const std::string& document() const;

    /// Whether another copy shows the same.
    bool equals(const picture::Snapshot& other) const;

  private:
    mutable std::once_flag document_made_;
    mutable std::string document_;
};

/// Why there is no copy, or none that is newer.
struct Problem {
    picture::ErrorKind kind = picture::ErrorKind::failed;
    std::string message;  ///< what failed, why and what to do next; printable, in one line

    bool operator==(const Problem&) const = default;
};

struct Look {
    std::optional<picture::Bridge> bridge;  ///< beside `content`, as it was read last; nothing where it is not known
    uint64_t bridge_version = 0;  ///< rises each time the bridge says something else, ages and revisions apart
    std::shared_ptr<const Content> content;        ///< the newest copy; null: none was made yet, or the region has gone
    uint64_t version = 0;                          ///< of `content`; rises with each that shows something else
    std::optional<Problem> problem;                ///< of this look; `content` is then of an earlier one, or null
    std::shared_ptr<const picture::Snapshot> all;  ///< a copy of all bytes, if this look was to make one
    std::optional<size_t> findings;                ///< how many "shmnmctl verify" has in the newest copy of all bytes
    std::optional<picture::platform::LockHolder> lock;  ///< facts of the region's lock, where the system tells them
    bool is_lock_held = false;
    uint64_t time_us = 0;                          ///< of this look, since 1970
    uint64_t copied_us = 0, copied_steady_us = 0;  ///< when `content` was last seen in the region
    uint64_t lock_wait_us = 0, lock_held_us = 0;   ///< of the newest copy
};

}  // namespace shmnmweb
