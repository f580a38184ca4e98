/**
 * @file shmnm.h
 * The live picture of a machine's failover cluster, in one region of memory that all its processes share.
 *
 * One process creates the region from the cluster configuration, every other one attaches to it; then all of them set
 * and read servers, hb (heartbeat) and np (network-partition) resources, a state word for every pair of them, and a few
 * cluster-wide values.
 *
 * What holds for every function unless it says otherwise:
 *  - Result   SHMNM_OK or one SHMNM_ERR_ code; nothing is thrown, there is no other error channel.
 *  - Order    an unmapped region (SHMNM_ERR_NOTINIT) is reported before a bad argument (SHMNM_ERR_PARAM), a bad
 * argument before all else.
 *  - Failure  leaves the region and the caller's outputs as they were.
 *  - Locks    none is taken: hold shmnm_rwlock() or shmnm_rolock() around what must be consistent.
 *  - Threads  any thread may call any function. A thread must not unmap the region (shmnm_detach(), shmnm_delete())
 * while another one of its process is within a call that uses it.
 *  - Memory   every buffer is the caller's; no pointer is kept, none into the region is given out.
 *  - Text     NUL-terminated bytes, compared byte for byte, never converted.
 *  - States   opaque 32-bit words. 2 is what the library itself writes into every state that it opens.
 *  - Limits   bytes beyond the mapped view are never touched, whatever the region's counts say: what would have to be
 * read there is not found, what would have to be written there finds its table full, a listing ends there.
 *  - Log      every call writes an entry and an exit line at level 16, each failure a line at level 1.
 */
#ifndef SHMNM_H
#define SHMNM_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32) && defined(KZMSHMNM_BUILD)
#define SHMNM_API __declspec(dllexport)
#elif defined(_WIN32)
#define SHMNM_API __declspec(dllimport)
#else
#define SHMNM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Every result code: X(name, value, meaning). 18 is not used, and 19 stays inside the library.
 */
#define SHMNM_RESULTS(X)                                                                                \
    X(SHMNM_OK, 0, "success")                                                                           \
    X(SHMNM_ERR_NOTINIT, 1, "the region is not mapped in this process")                                 \
    X(SHMNM_ERR_PARAM, 2, "a required pointer is null or a value is out of range")                      \
    X(SHMNM_ERR_NOTFOUND, 3, "no server or resource matches")                                           \
    X(SHMNM_ERR_BUFFER, 4, "the buffer is too small")                                                   \
    X(SHMNM_ERR_XMLINIT, 5, "the configuration library could not be initialised")                       \
    X(SHMNM_ERR_CREATEMAP, 6, "the region could not be created")                                        \
    X(SHMNM_ERR_MAPVIEW, 7, "the region could not be mapped")                                           \
    X(SHMNM_ERR_OPENMAP, 8, "the region could not be opened")                                           \
    X(SHMNM_ERR_COUNTOVER, 9, "the server table or the fst process-id table is full")                   \
    X(SHMNM_ERR_RSCOVER, 10, "the resource table is full")                                              \
    X(SHMNM_ERR_LOADINFO, 11, "the configured counts could not be loaded")                              \
    X(SHMNM_ERR_LOADCONFIG, 12, "the configuration could not be loaded")                                \
    X(SHMNM_ERR_EXIST, 13, "a server or resource of that name exists")                                  \
    X(SHMNM_ERR_ADDSVSTAT, 14, "the new server's column could not be opened in the resource tables")    \
    X(SHMNM_ERR_RMSVSTAT, 15, "the removed server's column could not be closed in the resource tables") \
    X(SHMNM_ERR_INDEX, 16, "a server position is out of range")                                         \
    X(SHMNM_ERR_LOCK, 17, "the time-out passed before the lock was free")                               \
    X(SHMNM_ERR_INSTALLPATH, 19, "the installation path is not known; callers see SHMNM_ERR_LOADINFO")

enum shmnm_result {
#define SHMNM_RESULT(name, value, meaning) name = value,
    SHMNM_RESULTS(SHMNM_RESULT)
#undef SHMNM_RESULT
};

/* ---- The region's format
 * ----------------------------------------------------------------------------------------------
 *
 * With S the maximum number of servers, H of hb resources, N of np resources and F the number of fst resources, the
 * region holds, one behind the other:
 *
 *     header                        1084 bytes
 *     server table                  S records of 320 bytes
 *     hb table                      584 * H * S bytes reserved, H records of 584 + 4 * S bytes
 *     np table                      584 * N * S bytes reserved, N records of 584 + 4 * S bytes
 *     fst table                     F records of 584 bytes
 *     fst process-id table          S * F records of 324 bytes
 *     network-wide states           (2 * H + N) * S words; hb resource r on server p has word r * S + p
 *
 * Records are packed: the first `count` of a table are in use, in the order in which they were added. All numbers are
 * little-endian.
 */

/** The region's header, 1084 bytes. */
typedef struct shmnm_header {
    int32_t hbinfo_b, hbinfo_a;       /**< the pair of shmnm_sethbinfo_ex(), the second value first */
    int32_t max_servers;              /**< S as the record code takes it: the length of every per-server array */
    int32_t max_hb, max_np;           /**< H and N: the limits that an add tests */
    int32_t fst_count, fst_pid_limit; /**< F, and S * F */
    int32_t server_count, hb_count, np_count, fst_pid_count; /**< records in use */
    uint32_t waitstat, bwflag, bwflagdisk, clstat;           /**< opaque */
    uint32_t dfailstatus;                                    /**< 1 while a network partition is simulated, else 0 */
    uint8_t reserved_64[1020];                               /**< always zero */
} shmnm_header;

/** One server, 320 bytes. The place of a record is the server's position. */
typedef struct shmnm_server {
    char name[256];                 /**< NUL-terminated, zero-padded */
    int32_t pri;                    /**< given by the caller, need not be unique; the svid of the resource functions */
    uint32_t nodestat, nodestat_nw; /**< opaque; 2 in a new record */
    uint32_t downnotifystat;        /**< opaque; 0 in a new record */
    uint8_t reserved_272[4];        /**< always zero */
    uint32_t isolateflag, pingstat, holdstat; /**< opaque */
    uint32_t dfailstatus;                     /**< 1 while this server is simulated as failed, else 0 */
    uint8_t reserved_292[28];                 /**< always zero */
} shmnm_server;

/** One hb, np or fst resource, 584 bytes. In the hb and np tables S words follow: its state on each server, by
 * position. */
typedef struct shmnm_resource {
    char name[256];           /**< NUL-terminated, at most 31 bytes of text, zero-padded */
    char type[32];            /**< NUL-terminated, zero-padded */
    uint8_t descript[256];    /**< free bytes */
    uint32_t pri;             /**< opaque */
    uint32_t stat;            /**< opaque */
    uint8_t reserved_552[32]; /**< always zero */
} shmnm_resource;

/** The process ids of one name, 324 bytes. Nothing pads the 64-bit values, which lie on 4-byte boundaries. */
typedef struct shmnm_fst_pid {
    char name[256];           /**< zero-padded; NUL-terminated while shorter than the field */
    uint32_t pid[3];          /**< one of each kind */
    uint32_t piddata[3][2];   /**< a 64-bit value of each kind, its low word first */
    uint8_t reserved_292[32]; /**< always zero */
} shmnm_fst_pid;

#define SHMNM_PIN(record, field, at) static_assert(offsetof(record, field) == (at), #record "." #field " moved")
/* clang-format off: a table */
SHMNM_PIN(shmnm_header, hbinfo_b, 0);
SHMNM_PIN(shmnm_header, hbinfo_a, 4);
SHMNM_PIN(shmnm_header, max_servers, 8);
SHMNM_PIN(shmnm_header, max_hb, 12);
SHMNM_PIN(shmnm_header, max_np, 16);
SHMNM_PIN(shmnm_header, fst_count, 20);
SHMNM_PIN(shmnm_header, fst_pid_limit, 24);
SHMNM_PIN(shmnm_header, server_count, 28);
SHMNM_PIN(shmnm_header, hb_count, 32);
SHMNM_PIN(shmnm_header, np_count, 36);
SHMNM_PIN(shmnm_header, fst_pid_count, 40);
SHMNM_PIN(shmnm_header, waitstat, 44);
SHMNM_PIN(shmnm_header, bwflag, 48);
SHMNM_PIN(shmnm_header, bwflagdisk, 52);
SHMNM_PIN(shmnm_header, clstat, 56);
SHMNM_PIN(shmnm_header, dfailstatus, 60);
SHMNM_PIN(shmnm_header, reserved_64, 64);
static_assert(sizeof(shmnm_header) == 1084, "shmnm_header resized");

SHMNM_PIN(shmnm_server, name, 0);
SHMNM_PIN(shmnm_server, pri, 256);
SHMNM_PIN(shmnm_server, nodestat, 260);
SHMNM_PIN(shmnm_server, nodestat_nw, 264);
SHMNM_PIN(shmnm_server, downnotifystat, 268);
SHMNM_PIN(shmnm_server, reserved_272, 272);
SHMNM_PIN(shmnm_server, isolateflag, 276);
SHMNM_PIN(shmnm_server, pingstat, 280);
SHMNM_PIN(shmnm_server, holdstat, 284);
SHMNM_PIN(shmnm_server, dfailstatus, 288);
SHMNM_PIN(shmnm_server, reserved_292, 292);
static_assert(sizeof(shmnm_server) == 320, "shmnm_server resized");

SHMNM_PIN(shmnm_resource, name, 0);
SHMNM_PIN(shmnm_resource, type, 256);
SHMNM_PIN(shmnm_resource, descript, 288);
SHMNM_PIN(shmnm_resource, pri, 544);
SHMNM_PIN(shmnm_resource, stat, 548);
SHMNM_PIN(shmnm_resource, reserved_552, 552);
static_assert(sizeof(shmnm_resource) == 584, "shmnm_resource resized");

SHMNM_PIN(shmnm_fst_pid, name, 0);
SHMNM_PIN(shmnm_fst_pid, pid, 256);
SHMNM_PIN(shmnm_fst_pid, piddata, 268);
SHMNM_PIN(shmnm_fst_pid, reserved_292, 292);
static_assert(sizeof(shmnm_fst_pid) == 324, "shmnm_fst_pid resized");
/* clang-format on */
#undef SHMNM_PIN

/* ---- The region's life ----------------------------------------------------------------------------------------------
 */

/**
 * Creates the region from the cluster configuration and maps it, or maps the one that exists, whose contents then stay.
 *
 * Only a region made new is zero-filled. In both cases the configured counts are written into the header: the
 * configuration is the authority at every mapping. A process that is mapped already gets SHMNM_OK, and nothing changes.
 * Does not count as an attach: one shmnm_detach() unmaps the region, and only shmnm_delete() closes the handle obtained
 * here.
 *
 * @retval SHMNM_ERR_XMLINIT     the configuration library does not start; no log line
 * @retval SHMNM_ERR_LOADCONFIG  the configuration cannot be loaded; no log line
 * @retval SHMNM_ERR_LOADINFO    the installation path is not known
 * @retval SHMNM_ERR_CREATEMAP   five attempts failed, each followed by a second of waiting
 * @retval SHMNM_ERR_MAPVIEW     the region was created but could not be mapped
 * @note Creates, attaches, detaches and deletes of one process are done one after the other.
 */
SHMNM_API uint32_t shmnm_create(void);

/**
 * Maps the region that another process created. Further calls only count; as many calls of shmnm_detach() unmap it.
 *
 * Where the areas start follows from this process's own configuration, and its counts are written into the header; a
 * configuration that differs from the creator's goes unnoticed.
 *
 * @retval SHMNM_ERR_XMLINIT, SHMNM_ERR_LOADCONFIG, SHMNM_ERR_LOADINFO  as for shmnm_create()
 * @retval SHMNM_ERR_OPENMAP  there is no region, or it may not be opened
 * @retval SHMNM_ERR_MAPVIEW  the region could not be mapped
 */
SHMNM_API uint32_t shmnm_attach(void);

/**
 * Takes back one attach; the last one unmaps the region, closes the handle obtained by shmnm_attach() and closes the
 * log. After a shmnm_create() a single call unmaps at once, and the handle obtained by create stays open, deliberately.
 */
SHMNM_API uint32_t shmnm_detach(void);

/**
 * Unmaps the region, closes the handle obtained by shmnm_create(), and closes the log (this also when nothing is
 * mapped). The region itself lives on while any process holds a handle. The count of attaches is left as it is,
 * deliberately.
 */
SHMNM_API uint32_t shmnm_delete(void);

/**
 * Fills the whole region with zero, the maximum values and counts of its header included: until the next create, attach
 * or shmnm_setmaxvalue_ex() nothing can be added.
 */
SHMNM_API uint32_t shmnm_clear(void);

/**
 * Copies the region's raw bytes.
 *
 * @param[out]    buf   receives the bytes; null: ask for the size
 * @param[in,out] size  bytes that `buf` can hold; set to the region's size when `buf` is null, else left as it is
 * @retval SHMNM_ERR_PARAM   `size` is null
 * @retval SHMNM_ERR_BUFFER  *size, signed, is below the region's size
 * @note A mapping smaller than the size that follows from this process's configuration ends early: zeros fill `buf` up.
 */
SHMNM_API uint32_t shmnm_dump(uint8_t* buf, int32_t* size);

/* ---- The lock -------------------------------------------------------------------------------------------------------
 *
 * One mutex for all processes; reading and writing calls take the same one. It belongs to the thread that took it,
 * which may take it again and releases it as often. The lock of an owner that ended is simply taken over. The four
 * calls work whether or not the region is mapped.
 */

/**
 * Takes the lock, to read.
 *
 * @param[in] timeout_ms  milliseconds to wait at most; 0 does not wait, 0xFFFFFFFF waits without limit
 * @retval SHMNM_ERR_LOCK  the time passed; every other outcome is SHMNM_OK, deliberately
 */
SHMNM_API uint32_t shmnm_rolock(uint32_t timeout_ms);
/** Releases the lock taken by shmnm_rolock(). Always SHMNM_OK, also when this thread does not own it. */
SHMNM_API uint32_t shmnm_rounlock(void);
/** Takes the lock, to write; otherwise as shmnm_rolock(). */
SHMNM_API uint32_t shmnm_rwlock(uint32_t timeout_ms);
/** Releases the lock taken by shmnm_rwlock(); otherwise as shmnm_rounlock(). */
SHMNM_API uint32_t shmnm_rwunlock(void);

/* ---- Cluster-wide values --------------------------------------------------------------------------------------------
 */

/**
 * Sets the three maximum values of the header. Nothing moves: the record code takes its stride and its limits from
 * them, so values other than the configured ones change how the region is read. The next create or attach writes them
 * anew.
 *
 * @param[in] servers, hb, np  each at least 1, in this order; no upper bound is tested
 * @retval SHMNM_ERR_PARAM  one of them is below 1
 */
SHMNM_API uint32_t shmnm_setmaxvalue_ex(int32_t servers, int32_t hb, int32_t np);
/** Gets the three maximum values. @retval SHMNM_ERR_PARAM a pointer is null */
SHMNM_API uint32_t shmnm_getmaxvalue_ex(uint32_t* servers, uint32_t* hb, uint32_t* np);

/** Sets the hb info pair. The region holds `b` before `a`. @retval SHMNM_ERR_PARAM `a` or `b` is below 1 */
SHMNM_API uint32_t shmnm_sethbinfo_ex(int32_t a, int32_t b);
/** Gets the hb info pair. @retval SHMNM_ERR_PARAM a pointer is null */
SHMNM_API uint32_t shmnm_gethbinfo_ex(uint32_t* a, uint32_t* b);

/** Sets the wait state, which shmnm_getnodecombstat() reads. Any value. */
SHMNM_API uint32_t shmnm_setwaitstat(uint32_t value);
/** Gets the wait state. @retval SHMNM_ERR_PARAM `value` is null */
SHMNM_API uint32_t shmnm_getwaitstat(uint32_t* value);
/** Sets the bw flag. Any value. */
SHMNM_API uint32_t shmnm_setbwflag(uint32_t value);
/** Gets the bw flag. @retval SHMNM_ERR_PARAM `value` is null */
SHMNM_API uint32_t shmnm_getbwflag(uint32_t* value);
/** Sets the bw flag of the disk. Any value. */
SHMNM_API uint32_t shmnm_setbwflagdisk(uint32_t value);
/** Gets the bw flag of the disk. @retval SHMNM_ERR_PARAM `value` is null */
SHMNM_API uint32_t shmnm_getbwflagdisk(uint32_t* value);
/** Sets the cluster state. Any value. */
SHMNM_API uint32_t shmnm_setclstat(uint32_t value);
/** Gets the cluster state. @retval SHMNM_ERR_PARAM `value` is null */
SHMNM_API uint32_t shmnm_getclstat(uint32_t* value);

#ifdef __cplusplus
}
#endif

#endif
