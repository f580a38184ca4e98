// The life of one named object, system call by system call: processes create or open it, use it and close it, and are
// stopped or killed between any two calls. One may also lose its descriptors, and with them its guards, while it goes
// on using the memory. Nobody else touches the files.
//
// As in the model of the lock, processes that never go on are covered twice: one may be stopped anywhere, and in every
// state each process is looked at as if all others had stopped.
#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "models.h"

namespace models {
namespace {

constexpr unsigned most_processes = 4, most_files = 10;

constexpr const char* one_object = "all who use the object use the same file";
constexpr const char* keeps_its_name = "the file of a living object keeps its name";
constexpr const char* new_to_one = "an object is new to one process";
constexpr const char* no_false_alarm = "nobody is told that the file was replaced, as nobody replaced it";
constexpr const char* alone_is_enough = "whoever finds the gate free gets the object without help from others";
constexpr const char* waits_end = "nobody waits for a stopped process for ever";
constexpr const char* dead_is_dead = "a dead object is never taken for a living one, nor a living one for a dead one";
constexpr const char* leaves_nothing = "a file goes with its last user";
constexpr const char* gate_is_for_names = "nobody holds the gate while it gets memory";

enum ObjectMutant : unsigned {
    faithful,
    gate_is_not_held_while_naming,
    gate_is_waited_for_without_limit,
    memory_is_allocated_inside_the_gate,
    name_is_guarded_before_it_is_given,
    guard_is_taken_after_the_gate,
    second_look_is_left_out,
    leftover_is_taken_for_living,
    leftover_is_replaced_while_mapped,
    last_out_looks_before_it_lets_go,
    file_is_removed_without_a_look,
    file_is_removed_while_mapped,
};
constexpr Mutant mutants[] = {
    {"gate_is_not_held_while_naming", no_false_alarm},
    {"gate_is_waited_for_without_limit", waits_end},
    {"memory_is_allocated_inside_the_gate", gate_is_for_names},
    {"name_is_guarded_before_it_is_given", no_false_alarm},
    {"guard_is_taken_after_the_gate", no_false_alarm},
    {"second_look_is_left_out", keeps_its_name},
    {"leftover_is_taken_for_living", dead_is_dead},
    {"leftover_is_replaced_while_mapped", dead_is_dead},
    {"last_out_looks_before_it_lets_go", leaves_nothing},
    {"file_is_removed_without_a_look", no_false_alarm},
    {"file_is_removed_while_mapped", one_object},
};

enum class At : uint8_t {
    idle,
    enter,          ///< is to lock the gate
    open_name,      ///< is to open what lies under the name
    look_name,      ///< is to see whether anybody guards the name
    look_file,      ///< is to see whether anybody guards the name with this file
    look_again,     ///< is to see whether anybody still guards the name
    look_mapped,    ///< is to see whether anybody uses a file that nobody guards
    remove_old,     ///< is to remove a dead object's file
    step_out,       ///< is to let go of the gate
    allocate,       ///< is to make an unnamed file with all of its memory
    step_in,        ///< is to lock the gate again
    link,           ///< is to give the new file the name
    guard_new,      ///< is to guard the name with the new file
    adopt,          ///< is to map the living file
    guard_adopted,  ///< is to guard the name with it
    leave,          ///< is to let go of the gate and then has the object
    guard_late,     ///< of a mutant: is to guard the name
    uses,
    close_unmap,   ///< is to unmap its file
    close_enter,   ///< is to lock the gate
    close_guard,   ///< is to let go of its guard
    close_look,    ///< is to see whether the name still leads to its file, and whether anybody guards it
    close_mapped,  ///< is to see whether anybody else uses the file
    close_remove,  ///< is to remove the file
    close_leave,   ///< is to let go of the gate
    dying,         ///< killed: the kernel takes back what it had, in any order
};

struct Process {
    At at = At::idle;
    bool creates = false;  ///< not only opens
    bool in_gate = false;
    uint8_t found = 0;      ///< the file that lay under the name
    uint8_t makes = 0;      ///< the unnamed file that it prepared
    uint8_t maps = 0;       ///< the file that it uses
    uint8_t guards = 0;     ///< the file that it holds the name with
    bool has_made = false;  ///< was told that the object is new
    bool bare = false;      ///< has closed all of its descriptors
    bool stopped = false;   ///< for ever
    bool operator==(const Process&) const = default;
};

class ObjectLife {
  public:
    struct State {
        std::array<Process, most_processes> processes;
        uint8_t name = 0;      ///< the file that it leads to
        bool excused = false;  ///< somebody was killed, stopped, kept out or bare, so a file may be left
        uint8_t deaths = 0, stops = 0, closings = 0;
    };

    ObjectLife(const Size& size, ObjectMutant mutant) : size_(size), mutant_(mutant) {}

    static State first() { return {}; }
    static std::string name_of(unsigned process) { return "P" + std::to_string(process); }

    template <typename Take>
    void steps(const State& state, const Take& take) const {
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            const Process& self = state.processes[me - 1];
            if (!self.stopped) {
                step_of(state, me, take);
                stop(state, me, take);
                close_descriptors(state, me, take);
            }
            kill(state, me, take);
        }
    }

    const char* broken_in(const State& state, bool quiet) const {
        uint8_t used = 0;
        bool all_idle = true, made = false;
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            const Process& self = state.processes[me - 1];
            all_idle = all_idle && self.at == At::idle;
            if (self.at == At::allocate && self.in_gate) return gate_is_for_names;
            if (self.at != At::uses) continue;
            if (used != 0 && used != self.maps) return one_object;
            if (self.has_made && std::exchange(made, true)) return new_to_one;
            used = self.maps;
            if (!self.bare && state.name != self.maps) return keeps_its_name;
        }
        if (quiet && all_idle && !state.excused && state.name != 0) return leaves_nothing;
        for (uint8_t me = 1; me <= size_.processes; ++me) {
            if (const char* const broken = broken_alone(state, me)) return broken;
        }
        return nullptr;
    }

    /// Processes in order, and files numbered in the order in which they are met.
    State canonical(const State& state) const {
        std::array<uint8_t, most_processes> order{0, 1, 2, 3};
        State best = in_order(state, order);
        while (next_order(order)) {
            const State other = in_order(state, order);
            if (std::memcmp(&other, &best, sizeof best) < 0) best = other;
        }
        return best;
    }

  private:
    bool next_order(std::array<uint8_t, most_processes>& order) const {
        return std::next_permutation(order.begin(), order.begin() + size_.processes);
    }

    State in_order(const State& state, const std::array<uint8_t, most_processes>& order) const {
        State result = state;
        for (unsigned at = 0; at < size_.processes; ++at) result.processes[at] = state.processes[order[at]];
        std::array<uint8_t, most_files> number{};
        uint8_t last = 0;
        const auto renumber = [&](uint8_t& file) {
            if (file == 0) return;
            if (number[file] == 0) number[file] = ++last;
            file = number[file];
        };
        renumber(result.name);
        for (Process& process : result.processes) {
            for (uint8_t* const file : {&process.found, &process.makes, &process.maps, &process.guards})
                renumber(*file);
        }
        return result;
    }

    bool is_guarded(const State& state) const {
        return std::any_of(state.processes.begin(), state.processes.end(),
                           [](const Process& p) { return p.guards != 0; });
    }
    bool is_guarded_with(const State& state, uint8_t file) const {
        return std::any_of(state.processes.begin(), state.processes.end(),
                           [&](const Process& p) { return p.guards == file; });
    }
    /// By others: the process's own files were let go of before.
    bool is_mapped(const State& state, uint8_t file, uint8_t me) const {
        for (uint8_t other = 1; other <= size_.processes; ++other) {
            if (other != me && state.processes[other - 1].maps == file) return true;
        }
        return false;
    }
    bool gate_is_free(const State& state) const {
        return std::none_of(state.processes.begin(), state.processes.end(), [](const Process& p) { return p.in_gate; });
    }
    static uint8_t new_file(const State& state) {
        std::array<bool, most_files> taken{};
        taken[state.name] = true;
        for (const Process& process : state.processes) {
            taken[process.found] = taken[process.makes] = taken[process.maps] = taken[process.guards] = true;
        }
        uint8_t file = 1;
        while (taken[file]) ++file;
        return file;
    }

    /// What a process comes to that goes on while all others stand still. A fresh one is to create the object.
    const char* broken_alone(const State& state, uint8_t me) const {
        State now = state;
        Process& self = now.processes[me - 1];
        if (self.at == At::dying || self.at == At::uses) return nullptr;
        const bool creates = self.at == At::idle || self.creates;
        const bool can_enter = gate_is_free(state) || self.in_gate;
        const bool begins = self.at == At::idle;
        const bool lived = is_guarded(state) || (state.name != 0 && is_mapped(state, state.name, 0));
        self.stopped = false;
        if (begins) {
            self.at = At::enter;
            self.creates = true;
        }
        const bool closes = self.at >= At::close_unmap;
        for (int steps = 0; self.at != At::uses && self.at != At::idle; ++steps) {
            const State before = now;
            bool moved = false;
            const char* broken = nullptr;
            step_of(before, me, [&](const State& next, const Step& step) {
                if (std::exchange(moved, true)) return;
                broken = step.broken;
                now = next;
            });
            if (broken) return broken;
            if (!moved || steps > 40) return waits_end;
        }
        if (closes || !creates || !can_enter) return nullptr;
        if (self.at != At::uses) return alone_is_enough;
        return begins && self.has_made == lived ? dead_is_dead : nullptr;
    }

    template <typename Take>
    void stop(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Process& self = next.processes[me - 1];
        if (self.at == At::idle || self.at == At::dying || state.stops == size_.stops) return;
        self.stopped = true;
        ++next.stops;
        next.excused = true;
        take(next, {me, "is stopped", true});
    }
    template <typename Take>
    void kill(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Process& self = next.processes[me - 1];
        if (self.at == At::idle || self.at == At::dying || state.deaths == size_.deaths) return;
        self.at = At::dying;
        self.found = self.makes = 0;
        self.creates = self.has_made = self.bare = self.stopped = false;
        ++next.deaths;
        next.excused = true;
        take(next, {me, "is killed", true});
    }
    template <typename Take>
    void close_descriptors(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Process& self = next.processes[me - 1];
        if (self.at != At::uses || self.bare || state.closings == 1) return;
        self.bare = true;
        self.guards = 0;
        ++next.closings;
        next.excused = true;
        take(next, {me, "closes all of its descriptors", true});
    }

    /// The steps that a process can make now.
    template <typename Take>
    void step_of(const State& state, uint8_t me, const Take& take) const {
        State next = state;
        Process& self = next.processes[me - 1];
        const auto go = [&](At at, const char* text, const char* broken = nullptr) {
            self.at = at;
            take(next, {me, text, false, broken});
        };
        const auto enter_or = [&](At inside, At refused) {
            if (gate_is_free(state)) {
                self.in_gate = true;
                return go(inside, "locks the gate");
            }
            if (mutant_ == gate_is_waited_for_without_limit) return;
            next.excused = true;
            if (refused == At::idle) self = {};
            go(refused, "has waited for the gate long enough");
        };
        switch (self.at) {
            case At::idle:
                self.at = At::enter;
                take(next, {me, "begins to open the object", true});
                self.creates = true;
                return take(next, {me, "begins to create the object", true});
            case At::enter:
                return enter_or(At::open_name, At::idle);
            case At::open_name:
                self.found = state.name;
                if (mutant_ == leftover_is_taken_for_living && self.found != 0) return go(At::adopt, "opens the file");
                return go(At::look_name, self.found != 0 ? "opens the file" : "finds no file");
            case At::look_name:
                if (is_guarded(state)) return go(At::look_file, "sees the name guarded");
                return go(self.found != 0 ? At::look_mapped : nobody_lives(self), "sees the name not guarded");
            case At::look_file:
                if (self.found != 0 && is_guarded_with(state, self.found))
                    return go(At::adopt, "sees the file guarded");
                return go(At::look_again, "sees the file not guarded");
            case At::look_again:
                if (is_guarded(state)) return go(At::leave, "sees the name still guarded", no_false_alarm);
                return go(self.found != 0 ? At::look_mapped : nobody_lives(self), "sees the name not guarded any more");
            case At::look_mapped:
                if (is_mapped(state, self.found, me) && mutant_ != leftover_is_replaced_while_mapped) {
                    return go(At::adopt, "sees that somebody uses the file");
                }
                return go(self.creates ? At::remove_old : nobody_lives(self), "sees that nobody uses the file");
            case At::remove_old:
                next.name = 0;
                self.found = 0;
                return go(nobody_lives(self), "removes the dead file");
            case At::step_out:
                self.in_gate = false;
                self.found = 0;
                if (!self.creates) self = {};
                return go(self.creates ? At::allocate : At::idle, "lets go of the gate");
            case At::allocate:
                self.makes = self.maps = new_file(state);
                return go(self.in_gate ? At::link : At::step_in, "makes an unnamed file");
            case At::step_in:
                if (mutant_ == gate_is_not_held_while_naming) return go(At::open_name, "does not lock the gate");
                return enter_or(mutant_ == second_look_is_left_out ? At::link : At::open_name, At::idle);
            case At::link:
                next.name = self.makes;
                return go(self.guards != 0 || mutant_ == guard_is_taken_after_the_gate ? At::leave : At::guard_new,
                          "gives the new file the name");
            case At::guard_new:
                self.guards = self.makes;
                return go(mutant_ == name_is_guarded_before_it_is_given ? At::link : At::leave,
                          "guards the name with the new file");
            case At::adopt:
                self.maps = self.found;
                self.makes = 0;
                return go(At::guard_adopted, "maps the file");
            case At::guard_adopted:
                self.guards = self.found;
                return go(At::leave, "guards the name with the file");
            case At::leave:
                return leave(next, me, take);
            case At::guard_late:
                self.guards = self.maps;
                return go(At::uses, "guards the name and has the object");

            case At::uses:
                self.at = At::close_unmap;
                return take(next, {me, "begins to close the object", true});
            case At::close_unmap:
                self.found = self.maps;  // it knows its file, also without it
                self.maps = 0;
                self.has_made = self.bare = false;
                return go(At::close_enter, "unmaps the file");
            case At::close_enter:
                return enter_or(mutant_ == last_out_looks_before_it_lets_go ? At::close_look : At::close_guard,
                                At::close_guard);
            case At::close_guard:
                self.guards = 0;
                if (mutant_ == last_out_looks_before_it_lets_go && self.in_gate) {
                    return go(At::close_leave, "lets go of its guard");
                }
                if (self.in_gate) return go(At::close_look, "lets go of its guard");
                self = {};
                return take(next, {me, "lets go of its guard"});
            case At::close_look:
                return close_look(next, me, take);
            case At::close_mapped:
                if (is_mapped(state, state.name, me) && mutant_ != file_is_removed_while_mapped) {
                    return go(At::close_leave, "sees that somebody uses the file");
                }
                return go(At::close_remove, "sees that nobody uses the file");
            case At::close_remove:
                next.name = 0;
                return go(At::close_leave, "removes the file");
            case At::close_leave:
                self = {};
                return take(next, {me, "lets go of the gate"});
            case At::dying:
                return take_back(state, me, take);
        }
    }

    /// Where a look leads that found no living object.
    At nobody_lives(const Process& self) const {
        if (self.makes != 0) return mutant_ == name_is_guarded_before_it_is_given ? At::guard_new : At::link;
        if (mutant_ == memory_is_allocated_inside_the_gate && self.creates) return At::allocate;
        return At::step_out;
    }

    template <typename Take>
    void leave(State next, uint8_t me, const Take& take) const {
        Process& self = next.processes[me - 1];
        self.in_gate = false;
        self.has_made = self.makes != 0;
        self.found = self.makes = 0;
        self.creates = false;
        self.at = self.guards == 0 ? At::guard_late : At::uses;
        take(next, {me, "lets go of the gate and has the object"});
    }

    template <typename Take>
    void close_look(State next, uint8_t me, const Take& take) const {
        Process& self = next.processes[me - 1];
        const bool is_own = next.name == self.found;
        const bool is_held = is_guarded(next) && mutant_ != file_is_removed_without_a_look;
        const bool removes = next.name != 0 && is_own && !is_held;
        self.at = removes ? At::close_mapped : At::close_leave;
        if (mutant_ == last_out_looks_before_it_lets_go) self.at = removes ? At::close_mapped : At::close_guard;
        take(next, {me, removes ? "sees the name not guarded" : "leaves the file to others"});
    }

    template <typename Take>
    void take_back(const State& state, uint8_t me, const Take& take) const {
        const Process& self = state.processes[me - 1];
        State next = state;
        if (self.maps != 0) {
            next.processes[me - 1].maps = 0;
            take(next, {me, "is gone from the file's users"});
            next = state;
        }
        if (self.guards != 0) {
            next.processes[me - 1].guards = 0;
            take(next, {me, "loses its guard"});
            next = state;
        }
        if (self.in_gate) {
            next.processes[me - 1].in_gate = false;
            take(next, {me, "loses the gate"});
            next = state;
        }
        if (self.maps == 0 && self.guards == 0 && !self.in_gate) {
            next.processes[me - 1] = {};
            take(next, {me, "is gone"});
        }
    }

    const Size size_;
    const ObjectMutant mutant_;
};

}  // namespace

Finding explore_object(const Size& size, std::string_view mutant) {
    const ObjectLife life(size, static_cast<ObjectMutant>(number_of(mutant, mutants)));
    return Explorer(life).explore();
}

std::span<const Mutant> object_mutants() {
    return mutants;
}

}  // namespace models
