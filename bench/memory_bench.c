/* Measures what loading the library and joining cost a process: the time of the load, and the private memory that it
 * holds afterwards, without the region. It is a C program, so that everything counts that the library needs.
 *
 *     memory_bench LIBRARY REGION [OTHER]
 *
 * REGION is a part of the name of the region's file. OTHER is a library that the process loads first.
 *
 * Prints the nanoseconds of the load, the private KiB before it, and the private KiB after joining and making calls.
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

/* The private KiB of all mappings except the region's. */
static unsigned long private_kib(const char* region) {
    char line[4096];
    unsigned long sum = 0;
    int counts = 0;
    FILE* maps = fopen("/proc/self/smaps", "r");
    if (!maps) exit(1);
    while (fgets(line, sizeof line, maps)) {
        /* The first line about a mapping begins with its addresses, the others begin with a word. */
        const size_t digits = strspn(line, "0123456789abcdef");
        if (digits > 0 && line[digits] == '-') {
            counts = !strstr(line, region);
        } else if (counts && (strncmp(line, "Private_Clean:", 14) == 0 || strncmp(line, "Private_Dirty:", 14) == 0)) {
            sum += strtoul(line + 14, NULL, 10);
        }
    }
    fclose(maps);
    return sum;
}

typedef uint32_t call(void);
typedef uint32_t call_with_number(uint32_t);
typedef uint32_t get_of_server(const char*, uint32_t*);
typedef uint32_t list_names(char*, uint32_t*);

/* A union, because C does not convert data pointers to function pointers. */
union function {
    void* address;
    call* plain;
    call_with_number* with_number;
    get_of_server* get;
    list_names* list;
};

static union function find(void* library, const char* name) {
    const union function found = {.address = dlsym(library, name)};
    if (found.address) return found;
    fprintf(stderr, "memory_bench: no %s\n", name);
    exit(1);
}

int main(int argc, char** argv) {
    if (argc < 3 || (argc > 3 && !dlopen(argv[3], RTLD_NOW))) return 2;
    private_kib(argv[2]); /* allocates this program's own buffers before they would count */
    const unsigned long before = private_kib(argv[2]);
    const uint64_t start = now_ns();
    void* const library = dlopen(argv[1], RTLD_NOW);
    const uint64_t loaded = now_ns() - start;
    if (!library) {
        fprintf(stderr, "memory_bench: %s\n", dlerror());
        return 1;
    }
    char names[4096];
    uint32_t value = 0, size = sizeof names;
    /* NOLINTBEGIN(clang-analyzer-core.CallAndMessage): find() never returns null; it ends the program instead */
    uint32_t result = find(library, "shmnm_attach").plain();
    result |= find(library, "shmnm_rwlock").with_number(0xFFFFFFFFU);
    result |= find(library, "shmnm_enumnode").list(names, &size);
    result |= find(library, "shmnm_getnodestat").get(names, &value);
    result |= find(library, "shmnm_setclstat").with_number(value);
    result |= find(library, "shmnm_rwunlock").plain();
    /* NOLINTEND(clang-analyzer-core.CallAndMessage) */
    if (result != 0 || value != 2) {
        fprintf(stderr, "memory_bench: a call failed\n");
        return 1;
    }
    printf("%llu %lu %lu\n", (unsigned long long)loaded, before, private_kib(argv[2]));
    return 0;
}
