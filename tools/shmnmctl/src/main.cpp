// shmnmctl: shows, changes and checks the picture of the cluster, and waits for changes of it.
#include "program.h"

int main(int argc, char** argv) {
    return shmnmctl::run_program(argc, argv);
}
