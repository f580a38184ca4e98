#include "context.h"

namespace shmnmctl {

void add_watch_command(CLI::App&, Context&) {}

}  // namespace shmnmctl
