// What a sequence of calls shows: a digest per block of calls or, for one block, every line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace answers {

using Bytes = std::span<const unsigned char>;

/// A digest of bytes that is the same on every machine of this byte order.
class Digest {
  public:
    void add(Bytes bytes);
    void add(uint64_t number);
    uint64_t value() const { return lanes_[0] ^ lanes_[1] ^ lanes_[2] ^ lanes_[3]; }

  private:
    uint64_t lanes_[4] = {1, 2, 3, 4};
};

class Record {
  public:
    static constexpr size_t block_size = 1000;

    /// Writes to `out` the digest of each block or, of one block, every line.
    Record(std::ostream& out, std::optional<size_t> shown_block) : out_(out), shown_block_(shown_block) {}

    /// The text of what follows must be looked at: this block's lines are shown.
    bool shows() const { return shown_block_ == index_ / block_size; }
    void text(const char* what, std::string_view text);
    void number(const char* what, uint64_t number);
    /// The bytes that differ from `before`, and a digest of all.
    void bytes(const char* what, Bytes now, Bytes before);
    /// Ends what belongs to a call.
    void end_call();

  private:
    std::ostream& out_;
    std::optional<size_t> shown_block_;
    size_t index_ = 0;
    Digest digest_;
};

}  // namespace answers
