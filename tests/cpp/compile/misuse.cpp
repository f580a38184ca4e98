// Each line that ends with a comment must be refused by the compiler.
#include "shmnm.hpp"

void misuse(std::error_code& error) {
    const shmnm::Server alpha("alpha");
    const shmnm::NpResource ping1("ping", "ping1");
    const std::vector<std::uint32_t> constant(4);
    std::vector<std::uint64_t> wide(4);
    alpha.set(shmnm::nodestat, shmnm::State{1}, error);
    ping1.set(shmnm::nprscsvstat, {1}, shmnm::State{1}, error);
    alpha.set(shmnm::nodestat, 1, error);                        // a number is no state
    alpha.set(shmnm::clstat, shmnm::State{1}, error);            // the word of another kind
    shmnm::set(shmnm::nodestat, shmnm::State{1}, error);         // the word of another kind
    ping1.get(shmnm::hbrscstat, error);                          // the word of another table
    ping1.get(shmnm::rscsvstat_nw, {1}, error);                  // np resources have no network-wide states
    ping1.set(shmnm::nprscsvstat, shmnm::State{1}, {1}, error);  // arguments in the wrong order
    ping1.get(shmnm::nprscsvstat, 1, error);                     // a number is no priority
    alpha.add(1, error);                                         // a number is no priority
    shmnm::Server from_null(nullptr);                            // there is no name without a text
    shmnm::NpResource any_by_null(nullptr, "ping1");             // any type is asked for by its word
    ping1.copy_row(shmnm::nprscsvstat, constant, error);         // constant words cannot be written
    ping1.copy_row(shmnm::nprscsvstat, wide, error);             // words have 32 bits
    shmnm::WriteLock waits_or_not;                               // it is always said whether a lock waits
    shmnm::WriteLock by_number(5, error);                        // a time has a unit
    const shmnm::WriteLock lock(std::chrono::seconds(5), error);
    shmnm::WriteLock copy = lock;  // a lock stays where it is
    const shmnm::Attachment region = shmnm::attach(error);
    shmnm::Attachment second = region;    // a region is moved, not copied
    shmnm::fst_pid("monitor", 3, error);  // there are three kinds
    if (error == 3) return;               // results are compared by name
}
