/* Waits until a condition holds, then prints the picture as JSON: picture CONDITION [DUMP | ADDRESS]
 * The exit status is that of shmnmctl: 0 done, 1 the condition does not hold in the dump, 2 wrong usage, 3 no region,
 * ... */
#include <shmnmpicture.h>
#include <stdio.h>
#include <string.h>

static int is_address(const char* text) {
    return strncmp(text, "unix:", 5) == 0 || strncmp(text, "http", 4) == 0;
}

static int32_t open_picture(const char* source, shmnmpicture** picture) {
    if (!source) return shmnmpicture_open_live(NULL, picture);
    if (is_address(source)) return shmnmpicture_open_address(source, NULL, picture);
    return shmnmpicture_open_file(source, NULL, picture);
}

/* Waits for the condition. A dump does not change, so nothing is waited for. */
static int32_t wait_for(shmnmpicture* picture, const char* condition, int is_dump, int32_t* holds) {
    for (;;) {
        const char* unmet = NULL;
        int32_t result = shmnmpicture_holds(picture, condition, holds, &unmet);
        if (result != SHMNMPICTURE_OK || *holds) return result;
        printf("not yet: %s\n", unmet);
        fflush(stdout);
        if (is_dump) return SHMNMPICTURE_OK;
        result = shmnmpicture_update(picture, 0xFFFFFFFF, NULL);
        if (result != SHMNMPICTURE_OK) return result;
    }
}

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: picture CONDITION [DUMP | ADDRESS]\n");
        return 2;
    }
    const char* const source = argc > 2 ? argv[2] : NULL;
    const int is_dump = source && !is_address(source);
    shmnmpicture* picture = NULL;
    int32_t holds = 0;
    int32_t result = open_picture(source, &picture);
    if (result == SHMNMPICTURE_OK) result = wait_for(picture, argv[1], is_dump, &holds);
    const char* json = NULL;
    if (result == SHMNMPICTURE_OK && holds) result = shmnmpicture_json(picture, &json, NULL);
    if (json) fputs(json, stdout);
    if (result != SHMNMPICTURE_OK) fprintf(stderr, "picture: %s\n", shmnmpicture_error(picture));
    shmnmpicture_free(picture);
    return result != SHMNMPICTURE_OK ? result / 100 : holds ? 0 : 1;
}
