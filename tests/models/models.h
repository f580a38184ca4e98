// The protocols of kzmkernel as models, of which every state that can be reached is visited. docs/lock-protocol.md
// explains both protocols.
#pragma once

#include <span>
#include <string_view>

#include "explorer.h"

namespace models {

/// A model with one thing left out or done wrong, and the promise that this breaks.
struct Mutant {
    const char* name;
    const char* breaks;
};

struct Size {
    unsigned processes = 3;
    unsigned deaths = 2;
    unsigned stops = 2;
};

/// The place of a mutant in a list, counted from 1; 0: the name is empty. Throws for an unknown name.
unsigned number_of(std::string_view mutant, std::span<const Mutant> mutants);

/// The lock: threads that take and release it. @param mutant a mutant's name; empty: the protocol as it is
Finding explore_lock(const Size& size, std::string_view mutant = {});
std::span<const Mutant> lock_mutants();

/// Reads of what the lock guards without taking it: processes that take the lock and write, and a reader. No process is
/// stopped, because the reader's promises speak of what it has read and not of time. @param mutant a mutant's name;
/// empty: the protocol as it is
Finding explore_read(const Size& size, std::string_view mutant = {});
std::span<const Mutant> read_mutants();

/// The life of an object: processes that create, open and close it. @param mutant a mutant's name; empty: the protocol
/// as it is
Finding explore_object(const Size& size, std::string_view mutant = {});
std::span<const Mutant> object_mutants();

}  // namespace models
