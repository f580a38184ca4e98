// A copy of a region with the answers that are made from it, in C++. shmnmpicture.cpp puts it behind the C interface.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/error.h"
#include "picture/keys.h"
#include "picture/picture.h"
#include "picture/snapshot.h"
#include "source.h"

namespace picture_library {

struct ReaderOptions {
    picture::Bytes wanted = picture::Bytes::in_use;
    bool force = false;  ///< answers also from a file that is not whole
    std::string file;    ///< the name of the dump, for messages; "" for other sources
};

/// Everything throws picture::Error. Questions to a reader without a copy throw what kept it from copying.
class Reader {
  public:
    Reader(std::unique_ptr<Source> source, ReaderOptions options);

    /// Copies again until a copy differs or the time has passed; the first time, copies once.
    /// @param[in] wait_ms  UINT32_MAX: without limit
    /// @return whether the copy differs from the previous one
    bool update(uint32_t wait_ms);

    /// The documents "status" and "verify", each a line.
    const std::string& status();
    std::string findings() const;
    /// A value as JSON.
    std::string value(std::string_view key);
    /// What keeps a condition from holding; "" if it holds.
    std::string unmet(std::string_view condition);
    const std::string& warning();

    /// Whether it has no copy of the bytes that findings are looked for in.
    bool lacks_bytes() const { return copy_ && copy_->wanted != picture::Bytes::all; }

  private:
    /// What was made from the copy.
    struct Decoded {
        std::string warning, status;
        picture::Picture picture;
        std::vector<picture::Word> words;
    };

    bool copy_once();
    void expect_copy() const;
    Decoded& decoded();
    const std::vector<picture::Word>& words();

    std::unique_ptr<Source> source_;
    ReaderOptions options_;
    std::optional<picture::Snapshot> copy_;
    std::optional<Decoded> decoded_;
    std::optional<picture::Error> failure_;  ///< of the last attempt to copy
};

}  // namespace picture_library
