// shmnmbridge: lets the pictures of a cluster's machines converge through etcd.
#include "program.h"

int main(int argc, char** argv) {
    return bridge::run_program(argc, argv);
}
