// Runs the library and the model side by side: one call on each with the same arguments, then everything that can be
// seen of it is compared: result, outputs with all that lies behind them, log lines in order, and every byte of the
// view.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "plain_model/model.h"

namespace model {

struct Counts {
    int32_t servers, hb, np, fst;
};

/// A call as random bytes: which function, and for each argument which of a few values that are worth a try.
struct Call {
    std::array<uint8_t, 12> choices{};
};
/// As C would write it, to be read in a counter-example.
std::ostream& operator<<(std::ostream& stream, const Call& call);

/// How many functions there are to be called.
size_t function_count();
/// A call of the function at an index, with arguments that follow from the other choices.
Call call_of(size_t function, Call choices);
/// The same for the function of this name, without its prefix.
Call call_of(std::string_view function, Call choices);
/// The name of a call's function, without its prefix.
const char* name_of(const Call& call);

/// Makes calls on the library alone.
class Caller {
  public:
    Caller();
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /// @return the call's result
    uint32_t make(const Call& call);
    /// Everything that the last call could write to. Bytes that it left alone hold 0xC3.
    std::span<const unsigned char> outputs() const;
    /// Where a call puts a flag: one line of the log shows this address.
    const void* flag() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

class Harness {
  public:
    /// Maps a new region with these counts; `guarded` makes a touch of the page before or behind the library's view a
    /// fault.
    explicit Harness(const Counts& counts, bool guarded = false);
    ~Harness();
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    /// Makes the call on both sides. @return what differs, if anything does
    std::optional<std::string> step(const Call& call);

    /// Back to what the constructor left, without the time that another region would take.
    void restart();
    size_t view_size() const;
    /// Overwrites bytes of the region on both sides.
    void poke(size_t offset, const void* bytes, size_t size);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace model
