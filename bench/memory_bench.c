/* What a process pays that loads the library and joins: the time of the load, and the private memory it holds
 * afterwards beside the region. A C program, so that all the library brings along counts.
 *
 *     memory_bench LIBRARY REGION     REGION: what the names of the region's file contain
 *
 * Prints the nanoseconds of the load, the KiB private before it and those after the process has joined and called.
 */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static uint64_t now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000U + (uint64_t)now.tv_nsec;
}

/* The private pages of all mappings but the region's. */
static unsigned private_kib(const char* region) {
    char line[4096];
    unsigned sum = 0;
    int counts = 0;
    FILE* maps = fopen("/proc/self/smaps", "r");
    if (!maps) exit(1);
    while (fgets(line, sizeof line, maps)) {
        unsigned kib = 0;
        /* A mapping's first line has its addresses and its file; the others begin with a word. */
        if (strchr(line, '-') && strspn(line, "0123456789abcdef") > 0 &&
            line[strspn(line, "0123456789abcdef")] == '-') {
            counts = !strstr(line, region);
        } else if (counts && (sscanf(line, "Private_Clean: %u kB", &kib) == 1 ||
                              sscanf(line, "Private_Dirty: %u kB", &kib) == 1)) {
            sum += kib;
        }
    }
    fclose(maps);
    return sum;
}

typedef uint32_t call(void);
typedef uint32_t call_with_number(uint32_t);
typedef uint32_t get_of_server(const char*, uint32_t*);
typedef uint32_t list_names(char*, uint32_t*);

/* `pointer` is where the function's address goes. */
static void find(void* library, const char* name, void* pointer) {
    void* const address = dlsym(library, name);
    if (!address) {
        fprintf(stderr, "memory_bench: no %s\n", name);
        exit(1);
    }
    memcpy(pointer, &address, sizeof address);
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    private_kib(argv[2]); /* the buffers of this program's own */
    const unsigned before = private_kib(argv[2]);
    const uint64_t start = now_ns();
    void* const library = dlopen(argv[1], RTLD_NOW);
    const uint64_t loaded = now_ns() - start;
    if (!library) {
        fprintf(stderr, "memory_bench: %s\n", dlerror());
        return 1;
    }
    call *attach = NULL, *unlock = NULL;
    call_with_number *lock = NULL, *set_state = NULL;
    list_names* list = NULL;
    get_of_server* get = NULL;
    find(library, "shmnm_attach", &attach);
    find(library, "shmnm_rwlock", &lock);
    find(library, "shmnm_enumnode", &list);
    find(library, "shmnm_getnodestat", &get);
    find(library, "shmnm_setclstat", &set_state);
    find(library, "shmnm_rwunlock", &unlock);
    char names[4096];
    uint32_t value = 0, size = sizeof names;
    uint32_t result = attach() | lock(0xFFFFFFFFU) | list(names, &size) | get(names, &value) | set_state(value);
    result |= unlock();
    if (result != 0 || value != 2) {
        fprintf(stderr, "memory_bench: a call failed\n");
        return 1;
    }
    printf("%llu %u %u\n", (unsigned long long)loaded, before, private_kib(argv[2]));
    return 0;
}
