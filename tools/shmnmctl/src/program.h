#pragma once

namespace shmnmctl {

/// What shmnmctl's main() does: carries out the command line. Returns the exit status.
int run_program(int argc, char** argv);

}  // namespace shmnmctl
