#include "context.h"

namespace shmnmctl {

void add_serve_command(CLI::App&, Context&) {}

}  // namespace shmnmctl
