/*
 * A program with more rights than its caller, as an installation may have one: it is made to belong to another user and
 * setuid, loads the companions from the folder that is its first argument, and tells what it has found, a line each.
 */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/auxv.h>

/* A leak check would trace this process, which nobody may. */
__attribute__((visibility("default"))) int __lsan_is_turned_off(void); /* NOLINT: the sanitizer's name */
int __lsan_is_turned_off(void) {
    return 1;
}

static void* library(const char* folder, const char* name) {
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", folder, name);
    void* const handle = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (!handle) {
        printf("error=%s\n", dlerror());
        exit(1);
    }
    return handle;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const char *const folder = argv[1], *const name = argv[2];
    void *const kernel = library(folder, "libkzmkernel.so"), *const utility = library(folder, "libkzmutil.so"),
                *const log_companion = library(folder, "libkzmlog.so");
    void* (*open_mapping)(uint32_t, const char*);
    int32_t (*install_path)(char*, uint32_t);
    void* (*create_mapping)(void*, uint32_t, uint32_t, uint32_t, const char*);
    int32_t (*open_log)(const char*, void**, uint32_t, uint32_t, uint32_t, const char*);
    int32_t (*write_log)(void*, uint32_t, uint32_t, const char*, int32_t, const char*, const char*);
    *(void**)&open_mapping = dlsym(kernel, "kzmkernel_open_mapping");
    *(void**)&install_path = dlsym(utility, "KzmutilGetInstallPath");
    *(void**)&create_mapping = dlsym(utility, "KzmutilCreateNamedFileMapping");
    *(void**)&open_log = dlsym(log_companion, "kzmlog_open");
    *(void**)&write_log = dlsym(log_companion, "kzmlog_write");

    printf("secure=%lu\n", getauxval(AT_SECURE));
    char path[4096] = "";
    printf("install_path=%s\n", install_path(path, sizeof path) ? path : "");
    printf("created=%d\n", create_mapping((void*)UINTPTR_MAX, 4, 0, 4096, name) != NULL);
    printf("bare_name=%d\n", open_mapping(4, name) != NULL);
    void* log = NULL;
    const int32_t opened = open_log("shmnm", &log, 4, 1, 0, "oru_kzmshmnm_log");
    printf("opened=%d\n", opened);
    printf("written=%d\n", write_log(log, 4, 0, "file", 1, "function", "message"));
    return 0;
}
