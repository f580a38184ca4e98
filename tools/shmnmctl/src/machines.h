// The other machines of the cluster: where their pictures are served, as the bridge's marks tell, and what they show.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "context.h"

namespace shmnmctl {

struct Machine {
    std::string name;     ///< of its server, escaped
    std::string address;  ///< empty: the region that is read without --machine
};

/// The machines that were named by --machine, in that order.
/// @throws Failure  there are no marks, or they do not tell a usable address of a machine
std::vector<Machine> named_machines(const Context& context);

/// The same command line for the region of a machine.
Context at_machine(const Context& context, const Machine& machine);

/// A failure that names the machine which it is about.
Failure failure_at(const Machine& machine, const Failure& failure);

/// Shows what all machines show, side by side.
Exit show_machines(const Context& context);

}  // namespace shmnmctl
