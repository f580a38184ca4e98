/* The declarations of the C run time that the example uses, as Microsoft's msvcrt.dll has them. */
#ifndef TEST_MSVC_STDIO_H
#define TEST_MSVC_STDIO_H

/* 48 bytes on x64; three of them, the standard streams, lie one behind the other. */
typedef struct test_msvc_file {
    void* opaque[6];
} FILE;

FILE* __iob_func(void);
#define stderr (__iob_func() + 2)

int printf(const char* format, ...);
int fprintf(FILE* stream, const char* format, ...);
int fputs(const char* text, FILE* stream);

#endif
