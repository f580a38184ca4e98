#ifndef TEST_MSVC_INTTYPES_H
#define TEST_MSVC_INTTYPES_H

#include <stdint.h>

#define PRIu32 "u"

#endif
