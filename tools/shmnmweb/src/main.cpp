// shmnmweb: shows this machine's picture over HTTP, and can change nothing.
#include "program.h"

int main(int argc, char** argv) {
    return shmnmweb::run_program(argc, argv);
}
