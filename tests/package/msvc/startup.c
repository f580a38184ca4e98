/* What Microsoft's start-up code does for a console program of this ABI: it calls main() and ends with its result. */
#include <stdlib.h>

int main(int argc, char** argv);
int __getmainargs(int* argc, char*** argv, char*** environment, int expand_wildcards, int* new_mode);

void startup(void) {
    int argc = 0, new_mode = 0;
    char **argv = 0, **environment = 0;
    __getmainargs(&argc, &argv, &environment, 0, &new_mode);
    exit(main(argc, argv));
}
