#pragma once

namespace bridge {

/// What shmnmbridge's main() does: carries out the command line. Returns the exit status.
int run_program(int argc, char** argv);

}  // namespace bridge
