#pragma once

namespace shmnmweb {

/// What shmnmweb's main() does: carries out the command line. Returns the exit status.
int run_program(int argc, char** argv);

}  // namespace shmnmweb
