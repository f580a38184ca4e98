// What a process of the endurance run writes down, in memory that it shares with the run. It survives the process's
// death at any instruction. journal.py reads the same layout: everything is a 64-bit word.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace soak {

/// A word that is stored whole and in the order of the program.
class Cell {
  public:
    [[nodiscard]] uint64_t get() const { return value_.load(std::memory_order_seq_cst); }
    void set(uint64_t value) { value_.store(value, std::memory_order_seq_cst); }
    void add(uint64_t more) { set(get() + more); }

  private:
    std::atomic<uint64_t> value_;
};

/// A value of the region: noted in `begun` before the call that sets it, in `done` after the call.
struct Entry {
    Cell begun, done;
};

enum State : uint64_t { starting, running, paused };

constexpr size_t max_entries = 16, max_hand_overs = 256, max_takeovers = 64;

/// One per process. The next life of a killed process goes on with it.
struct Journal {
    Cell pid, state, lives, rounds, sets;
    Cell lost;    ///< values that were neither the last completed call's nor the interrupted call's
    Cell kept;    ///< interrupted calls whose value was in the region
    Cell undone;  ///< interrupted calls whose value was not
    Cell attaches, refused_attaches;
    Cell hand_overs;  ///< how many; the newest are in the ring below
    Cell is_filled;   ///< 1 once `entries` begin with what the region held
    std::array<Entry, max_entries> entries;
    std::array<Cell, max_hand_overs> hand_over_ns;
    std::array<char, 256> problem;
};

/// One per region, written only by the owner of the region's lock.
struct SharedJournal {
    Cell owner;        ///< process id; 0: no process of the run
    Entry counter;     ///< waitstat, which every owner raises by one
    Cell released_ns;  ///< CLOCK_MONOTONIC just before the newest release
    Cell takes;
    Cell overlaps;   ///< how often the lock came to a process while its last owner lived
    Cell takeovers;  ///< how many; the newest are in the ring below
    struct Takeover {
        Cell dead, asked_ns, taken_ns;
    };
    std::array<Takeover, max_takeovers> takeover;
};

}  // namespace soak
