/* Attaches to the cluster's picture, marks this server as alive, and lists all servers with their states.
 *
 *     tutorial SERVER
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "shmnm.h"

/* Prints each server with its state. The caller holds the lock, so the measured size still fits when the names are
 * copied. */
static uint32_t print_servers(void) {
    uint32_t size = 0, result = shmnm_enumnode(NULL, &size);
    if (result != SHMNM_OK) return result;
    char* names = malloc(size);
    if (!names) return SHMNM_ERR_BUFFER;
    result = shmnm_enumnode(names, &size);
    /* The names follow one another, each with its NUL; an empty name ends the list. */
    for (const char* name = names; result == SHMNM_OK && *name; name += strlen(name) + 1) {
        uint32_t state = 0;
        result = shmnm_getnodestat(name, &state);
        if (result == SHMNM_OK) printf("%s: %" PRIu32 "\n", name, state);
    }
    free(names);
    return result;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: tutorial SERVER\n", stderr);
        return 2;
    }

    /* Another process has created the region; this process joins it. */
    uint32_t result = shmnm_attach();
    if (result != SHMNM_OK) {
        fprintf(stderr, "cannot attach to the region: code %" PRIu32 "; start its creator first\n", result);
        return 1;
    }

    /* Other processes must not see a change half done, so it is made under the lock. Five seconds are plenty: no
     * process holds the lock for even a millisecond. */
    result = shmnm_rwlock(5000);
    if (result == SHMNM_OK) {
        result = shmnm_setnodestat(argv[1], 1);
        if (result == SHMNM_ERR_NOTFOUND) {
            fprintf(stderr, "unknown server \"%s\"\n", argv[1]);
        } else if (result == SHMNM_OK) {
            result = print_servers();
        }
        shmnm_rwunlock();
    }

    shmnm_detach();
    return result == SHMNM_OK ? 0 : 1;
}
