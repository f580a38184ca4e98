// A caller's buffer with a guard before it and a guard after it: a call that writes outside the buffer changes a guard,
// and a call that reads outside it takes values that a test recognises.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace test {

template <typename Value>
class GuardedBuffer {
  public:
    GuardedBuffer(size_t size, Value fill, Value guard)
        : size_(size), guard_(guard), values_(size + 2 * guard_size, guard) {
        std::fill_n(data(), size, fill);
    }
    GuardedBuffer(std::initializer_list<Value> values, Value guard) : GuardedBuffer(values.size(), Value{}, guard) {
        std::copy(values.begin(), values.end(), data());
    }

    Value* data() { return values_.data() + guard_size; }
    std::vector<Value> content() const {
        const auto first = values_.begin() + static_cast<std::ptrdiff_t>(guard_size);
        return {first, first + static_cast<std::ptrdiff_t>(size_)};
    }
    bool guards_are_whole() const {
        const auto is_guard = [this](Value value) { return value == guard_; };
        const auto length = static_cast<std::ptrdiff_t>(guard_size);
        return std::all_of(values_.begin(), values_.begin() + length, is_guard) &&
               std::all_of(values_.end() - length, values_.end(), is_guard);
    }

  private:
    static constexpr size_t guard_size = 64;

    size_t size_;
    Value guard_;
    std::vector<Value> values_;
};

}  // namespace test
