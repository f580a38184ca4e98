/* A log companion as an installation would bring its own: every message goes to standard error. */
#include <stdio.h>

#include "kzmlog.h"

int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                    const char* channel) {
    static int opened;
    (void)level, (void)size, (void)flags;
    fprintf(stderr, "opened %s %s\n", module, channel);
    *log = &opened;
    return 0;
}

int32_t kzmlog_close(void* log) {
    (void)log;
    return 0;
}

int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line, const char* function,
                     const char* message) {
    (void)log, (void)level, (void)flags, (void)file, (void)line;
    fprintf(stderr, "%s: %s\n", function, message);
    return 0;
}
