#ifndef TEST_MSVC_STDLIB_H
#define TEST_MSVC_STDLIB_H

#include <stddef.h>

void* malloc(size_t size);
void free(void* memory);
_Noreturn void exit(int status);

#endif
