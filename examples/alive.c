#include <stdio.h>

#include "shmnm.h"

int main(void) {
    uint32_t result = shmnm_attach(), state = 0;
    if (result == SHMNM_OK) {
        result = shmnm_rwlock(5000);
        if (result == SHMNM_OK) {
            result = shmnm_setnodestat("alpha", 1);
            if (result == SHMNM_OK) result = shmnm_getclstat(&state);
            if (result == SHMNM_OK) printf("alpha is alive, the cluster's state is %u\n", (unsigned)state);
            shmnm_rwunlock();
        }
        shmnm_detach();
    }
    if (result != SHMNM_OK) fprintf(stderr, "failed with result %u\n", (unsigned)result);
    return result == SHMNM_OK ? 0 : 1;
}
