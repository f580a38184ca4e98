#ifndef TEST_MSVC_STRING_H
#define TEST_MSVC_STRING_H

#include <stddef.h>

size_t strlen(const char* text);

#endif
