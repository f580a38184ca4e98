#include "context.h"

namespace shmnmctl {

void add_condition_commands(CLI::App&, Context&) {}

}  // namespace shmnmctl
