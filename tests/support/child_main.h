// For the tests' main(): runs the child's function when this process was started as a child.
#pragma once

namespace test {
bool run_as_child(int argc, char** argv);
}  // namespace test
