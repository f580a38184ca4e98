// Attaches, forks, and lets only the child live. The child writes its process id and waits for the end of its input.
#include <unistd.h>

#include <cstdio>

#include "shmnm.h"

int main() {
    if (shmnm_attach() != SHMNM_OK) return 1;
    const pid_t child = fork();
    if (child < 0) return 1;
    if (child > 0) _exit(0);
    std::printf("%d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
