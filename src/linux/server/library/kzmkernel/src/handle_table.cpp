#include "handle_table.h"

#include <atomic>
#include <utility>

namespace kzmkernel {

/// A slot of the table. The upper half of `state` says how often the slot has been used and whether it is open. The
/// lower half counts the threads that use it, plus 1 while it is open. The thread that lowers it to 0 drops the object.
struct Slot {
    std::atomic<uint64_t> state;
    Object* object;
    bool writable;
    uint32_t next_free;  ///< index + 1; 0: none
};

namespace {

constexpr uint32_t slot_count = 1u << 17;
constexpr int user_bits = 32, generation_shift = 33;
constexpr uint64_t one_user = 1, user_mask = 0xFFFFFFFF, open_bit = uint64_t{1} << user_bits;
constexpr uint64_t generation_mask = 0x7FFFFFFF;
/// Handles are multiples of 4, as in Windows, and never null.
constexpr int place_bits = 17, handle_shift = 2;
static_assert(slot_count == 1u << place_bits);

/// Pages of the table that are never touched cost no memory.
constinit Slot slots[slot_count]{};
constinit uint32_t used_slots = 0, first_free = 0;

uint64_t generation_of(uint64_t state) {
    return state >> generation_shift & generation_mask;
}

void* handle_of(uint32_t place, uint64_t state) {
    return reinterpret_cast<void*>((generation_of(state) << place_bits | place) << handle_shift);
}

/// The slot of a handle, and the handle's generation; null if `handle` cannot be a handle.
Slot* slot_of(void* handle, uint64_t& generation) {
    const uint64_t number = reinterpret_cast<uintptr_t>(handle);
    const uint64_t place = number >> handle_shift & (slot_count - 1);
    generation = number >> (handle_shift + place_bits);
    const bool possible = generation != 0 && generation <= generation_mask && number % (1 << handle_shift) == 0;
    return possible ? &slots[place] : nullptr;
}

bool is_open(uint64_t state, uint64_t generation) {
    return (state & open_bit) != 0 && generation_of(state) == generation;
}

/// Adds `difference` to the state of a slot; false if the slot is not open in this generation.
bool change_open(Slot& slot, uint64_t generation, uint64_t difference) {
    uint64_t state = slot.state.load(std::memory_order_relaxed);
    do {
        if (!is_open(state, generation)) return false;
        // branch by chance: another thread changes the slot between the two accesses
    } while (!slot.state.compare_exchange_weak(state, state + difference, std::memory_order_acquire,
                                               std::memory_order_relaxed));
    return true;
}

/// Drops a slot's object and puts the slot on the free list. The caller holds the process's lock.
void give_up(Slot& slot) {
    Object* const object = slot.object;
    slot.object = nullptr;
    slot.next_free = first_free;
    first_free = static_cast<uint32_t>(&slot - slots) + 1;
    drop_object(object);
}

void let_go(Thread& thread) {
    thread.handle = nullptr;
    MappedMutex* const mapped = std::exchange(thread.mapped, nullptr);
    if (mapped) mapped->users.fetch_sub(1, std::memory_order_release);
}

void end_use(Slot& slot) {
    if ((slot.state.fetch_sub(one_user, std::memory_order_acq_rel) & user_mask) != one_user) return;
    const ProcessLock locked;
    give_up(slot);
}

}  // namespace

Use::Use(void* handle, Kind kind) noexcept {
    uint64_t generation = 0;
    slot_ = slot_of(handle, generation);
    if (slot_ && !change_open(*slot_, generation, one_user)) slot_ = nullptr;
    if (slot_ && slot_->object->kind != kind) {
        end_use(*slot_);
        slot_ = nullptr;
    }
}

Use::~Use() {
    if (slot_) end_use(*slot_);
}

Object* Use::operator->() const {
    return slot_->object;
}
bool Use::writable() const {
    return slot_->writable;
}

bool LastMutexUse::is_open(const Thread& thread) noexcept {
    return (thread.slot_state->load(std::memory_order_acquire) >> user_bits) == thread.open_state;
}

void remember_last_mutex(Thread& thread, const Use& use, void* handle) noexcept {
    // branch: a signal's handler calls while its thread is inside
    if (thread.is_inside.load(std::memory_order_relaxed)) return;
    const Slot& slot = *use.slot_;
    const uint64_t state = slot.state.load(std::memory_order_relaxed);
    if ((state & open_bit) == 0 || !watch_end_of(thread)) return;
    thread.enter();
    let_go(thread);
    MappedMutex* const mapped = slot.object->mapped;
    mapped->users.fetch_add(1, std::memory_order_relaxed);
    thread.slot_state = &slot.state;
    thread.open_state = state >> user_bits;
    thread.mapped = mapped;
    thread.mutex = mapped->mutex;
    thread.handle = handle;
    thread.leave();
}

void forget_last_mutex(Thread& thread) noexcept {
    // branch: a signal's handler ends the thread or the process while its thread is inside
    if (thread.is_inside.load(std::memory_order_relaxed)) return;
    thread.enter();
    let_go(thread);
    thread.leave();
}

void* open_handle(Object* object, bool writable) noexcept {
    uint32_t place = 0;
    if (first_free != 0) {
        place = first_free - 1;
        first_free = slots[place].next_free;
    } else if (used_slots < slot_count) {
        place = used_slots++;
    } else {
        return nullptr;
    }
    Slot& slot = slots[place];
    slot.object = object;
    slot.writable = writable;
    uint64_t generation = (generation_of(slot.state.load(std::memory_order_relaxed)) + 1) & generation_mask;
    // branch: the generations of a slot begin again after billions of handles
    if (generation == 0) generation = 1;
    const uint64_t state = generation << generation_shift | open_bit | one_user;
    slot.state.store(state, std::memory_order_release);
    return handle_of(place, state);
}

bool close_handle(void* handle) noexcept {
    uint64_t generation = 0;
    Slot* const slot = slot_of(handle, generation);
    if (!slot || !change_open(*slot, generation, -open_bit)) return false;
    Thread& thread = thread_state();
    if (thread.handle == handle) forget_last_mutex(thread);
    end_use(*slot);
    return true;
}

void forget_other_threads() noexcept {
    for (uint32_t place = 0; place < used_slots; ++place) {
        Slot& slot = slots[place];
        const uint64_t state = slot.state.load(std::memory_order_relaxed);
        if ((state & open_bit) != 0) {
            slot.state.store((state & ~user_mask) | one_user, std::memory_order_relaxed);
        } else if (slot.object) {
            slot.state.store(state & ~user_mask, std::memory_order_relaxed);
            give_up(slot);
        }
    }
}

}  // namespace kzmkernel
