/* The public header in C: compiled as C11, every function by its address, records and calls as a C program uses them.
 * Needs an installation of three servers, two hb, two np and one fst resource. */
#include "shmnm.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef void (*function)(void);
#define FUNCTION(name) \
    { #name, (function)name }
static const struct {
    const char* name;
    function address;
} functions[] = {
    FUNCTION(shmnm_create),
    FUNCTION(shmnm_attach),
    FUNCTION(shmnm_detach),
    FUNCTION(shmnm_delete),
    FUNCTION(shmnm_clear),
    FUNCTION(shmnm_dump),
    FUNCTION(shmnm_rolock),
    FUNCTION(shmnm_rounlock),
    FUNCTION(shmnm_rwlock),
    FUNCTION(shmnm_rwunlock),
    FUNCTION(shmnm_setmaxvalue_ex),
    FUNCTION(shmnm_getmaxvalue_ex),
    FUNCTION(shmnm_sethbinfo_ex),
    FUNCTION(shmnm_gethbinfo_ex),
    FUNCTION(shmnm_setwaitstat),
    FUNCTION(shmnm_getwaitstat),
    FUNCTION(shmnm_setbwflag),
    FUNCTION(shmnm_getbwflag),
    FUNCTION(shmnm_setbwflagdisk),
    FUNCTION(shmnm_getbwflagdisk),
    FUNCTION(shmnm_setclstat),
    FUNCTION(shmnm_getclstat),
    FUNCTION(shmnm_addnode),
    FUNCTION(shmnm_rmnode),
    FUNCTION(shmnm_modifynode),
    FUNCTION(shmnm_enumnode),
    FUNCTION(shmnm_getnodepri),
    FUNCTION(shmnm_getnodename),
    FUNCTION(shmnm_setnodestat),
    FUNCTION(shmnm_getnodestat),
    FUNCTION(shmnm_setnodestat_nw),
    FUNCTION(shmnm_getnodestat_nw),
    FUNCTION(shmnm_setdownnotifystat),
    FUNCTION(shmnm_getdownnotifystat),
    FUNCTION(shmnm_setisolateflag),
    FUNCTION(shmnm_getisolateflag),
    FUNCTION(shmnm_setpingstat),
    FUNCTION(shmnm_getpingstat),
    FUNCTION(shmnm_setholdstat),
    FUNCTION(shmnm_getholdstat),
    FUNCTION(shmnm_getnodecombstat),
    FUNCTION(shmnm_chkalivesv),
    FUNCTION(shmnm_addhbrsc),
    FUNCTION(shmnm_addnprsc),
    FUNCTION(shmnm_rmhbrsc),
    FUNCTION(shmnm_rmnprsc),
    FUNCTION(shmnm_modifyhbrsc),
    FUNCTION(shmnm_modifynprsc),
    FUNCTION(shmnm_gethbrscpri),
    FUNCTION(shmnm_getnprscpri),
    FUNCTION(shmnm_gethbrscinfo),
    FUNCTION(shmnm_getnprscinfo),
    FUNCTION(shmnm_enumhbtype),
    FUNCTION(shmnm_enumnptype),
    FUNCTION(shmnm_enumhbrsc),
    FUNCTION(shmnm_enumnprsc),
    FUNCTION(shmnm_sethbrscstat),
    FUNCTION(shmnm_setnprscstat),
    FUNCTION(shmnm_gethbrscstat),
    FUNCTION(shmnm_getnprscstat),
    FUNCTION(shmnm_sethbrscsvstat),
    FUNCTION(shmnm_setnprscsvstat),
    FUNCTION(shmnm_gethbrscsvstat),
    FUNCTION(shmnm_getnprscsvstat),
    FUNCTION(shmnm_enumhbrscsvstat),
    FUNCTION(shmnm_enumnprscsvstat),
    FUNCTION(shmnm_enumsvhbrscstat),
    FUNCTION(shmnm_enumsvnprscstat),
    FUNCTION(shmnm_settypehbstat),
    FUNCTION(shmnm_settypenpstat),
    FUNCTION(shmnm_sethbdescript),
    FUNCTION(shmnm_setnpdescript),
    FUNCTION(shmnm_gethbdescript),
    FUNCTION(shmnm_getnpdescript),
    FUNCTION(shmnm_addhbrscsvstat),
    FUNCTION(shmnm_addnprscsvstat),
    FUNCTION(shmnm_rmhbrscsvstat),
    FUNCTION(shmnm_rmnprscsvstat),
    FUNCTION(shmnm_setnpsimu),
    FUNCTION(shmnm_getnpsimu),
    FUNCTION(shmnm_getnpsimuflag),
    FUNCTION(shmnm_setrscsvstat_nw),
    FUNCTION(shmnm_getrscsvstat_nw),
    FUNCTION(shmnm_enumrscsvstat_nw),
    FUNCTION(shmnm_enumsvrscstat_nw),
    FUNCTION(shmnm_setfstrscstat),
    FUNCTION(shmnm_getfstrscstat),
    FUNCTION(shmnm_setfstdescript),
    FUNCTION(shmnm_getfstdescript),
    FUNCTION(shmnm_setfstrscpid),
    FUNCTION(shmnm_getfstrscpid),
#undef FUNCTION
};
static_assert(sizeof functions / sizeof functions[0] == 91, "one function too few or too many");

static int failures = 0;
static void check(int holds, const char* text, int line) {
    if (holds) return;
    fprintf(stderr, "%s:%d: %s\n", __FILE__, line, text);
    ++failures;
}
#define CHECK(condition) check((condition) != 0, #condition, __LINE__)

static void every_function_has_an_address_of_its_own(void) {
    const size_t count = sizeof functions / sizeof functions[0];
    for (size_t i = 0; i < count; ++i) {
        CHECK(functions[i].address != NULL);
        for (size_t j = i + 1; j < count; ++j) {
            CHECK(functions[i].address != functions[j].address);
            CHECK(strcmp(functions[i].name, functions[j].name) != 0);
        }
    }
}

static void results_are_numbers(void) {
    static const struct {
        const char* name;
        int value;
    } results[] = {
#define RESULT(name, value, meaning) {#name, name},
        SHMNM_RESULTS(RESULT)
#undef RESULT
    };
    CHECK(sizeof results / sizeof results[0] == 19);
    CHECK(strcmp(results[0].name, "SHMNM_OK") == 0 && results[0].value == 0);
    CHECK(strcmp(results[18].name, "SHMNM_ERR_INSTALLPATH") == 0 && results[18].value == 19);
}

static void calls_fill_the_records_that_the_header_declares(void) {
    CHECK(shmnm_getnodepri("alpha", NULL) == SHMNM_ERR_NOTINIT);
    CHECK(shmnm_create() == SHMNM_OK);
    CHECK(shmnm_rwlock(10000) == SHMNM_OK);
    CHECK(shmnm_addnode("alpha", -7) == SHMNM_OK);
    CHECK(shmnm_addhbrsc("lan", "lan1", 8) == SHMNM_OK);
    CHECK(shmnm_setfstrscpid("ping", 1, 42, 0x0123456789ABCDEF) == SHMNM_OK);
    CHECK(shmnm_rwunlock() == SHMNM_OK);

    int32_t size = 0;
    CHECK(shmnm_dump(NULL, &size) == SHMNM_OK);
    CHECK(size == 10680);
    uint8_t* const region = calloc(1, (size_t)size);
    if (!region) abort();
    CHECK(shmnm_dump(region, &size) == SHMNM_OK);

    shmnm_header header;
    memcpy(&header, region, sizeof header);
    CHECK(header.max_servers == 3 && header.max_hb == 2 && header.max_np == 2);
    CHECK(header.fst_count == 1 && header.fst_pid_limit == 3);
    CHECK(header.server_count == 1 && header.hb_count == 1 && header.np_count == 0 && header.fst_pid_count == 1);

    shmnm_server server;
    memcpy(&server, region + sizeof header, sizeof server);
    CHECK(strcmp(server.name, "alpha") == 0 && server.pri == -7 && server.nodestat == 2);

    shmnm_resource resource;
    memcpy(&resource, region + sizeof header + 3 * sizeof server, sizeof resource);
    CHECK(strcmp(resource.name, "lan1") == 0 && strcmp(resource.type, "lan") == 0 && resource.pri == 8);

    shmnm_fst_pid ids;
    memcpy(&ids, region + sizeof header + 3 * sizeof server + 13 * sizeof resource, sizeof ids);
    CHECK(strcmp(ids.name, "ping") == 0 && ids.pid[0] == 0 && ids.pid[1] == 42);
    CHECK(ids.piddata[1][0] == 0x89ABCDEF && ids.piddata[1][1] == 0x01234567);

    free(region);
    CHECK(shmnm_delete() == SHMNM_OK);
}

int main(void) {
    CHECK(sizeof(shmnm_header) == 1084);
    CHECK(sizeof(shmnm_server) == 320);
    CHECK(sizeof(shmnm_resource) == 584);
    CHECK(sizeof(shmnm_fst_pid) == 324);
    every_function_has_an_address_of_its_own();
    results_are_numbers();
    calls_fill_the_records_that_the_header_declares();
    return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
