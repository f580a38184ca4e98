/**
 * @file shmnm.h
 * The live picture of a machine's failover cluster, in one region of memory that all its processes share.
 *
 * One process creates the region from the cluster configuration; the other processes attach to it. All of them can then
 * set and read the servers, the hb (heartbeat) and np (network-partition) resources, the state of each resource on each
 * server, and a few cluster-wide values.
 *
 * What holds for every function unless it says otherwise:
 *  - Result: SHMNM_OK or one SHMNM_ERR_ code. Functions throw nothing; there is no other error channel.
 *  - Order: an unmapped region (SHMNM_ERR_NOTINIT) is reported before a bad argument (SHMNM_ERR_PARAM), and a bad
 *    argument before any other error.
 *  - Failure: leaves the region and the caller's outputs as they were.
 *  - Locks: no function takes the lock for you. Hold shmnm_rwlock() or shmnm_rolock() around steps that must be
 *    consistent.
 *  - Threads: any thread may call any function. A thread must not unmap the region (shmnm_detach(), shmnm_delete())
 *    while another thread of its process is inside a call that uses it.
 *  - Memory: the caller owns every buffer. The library keeps no pointer and hands out no pointer into the region.
 *  - Text: NUL-terminated bytes, compared byte for byte, never converted.
 *  - States: opaque 32-bit words. The library itself writes 2 into every state of a new server or resource.
 *  - Limits: no call touches a byte beyond the mapped view, whatever the region's counts say. A record that would lie
 *    there is not found, a table that would grow into it is full, and a listing ends at the view's end.
 *  - Log: every call writes an entry line and an exit line at level 16, and a failure writes a line at level 1.
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `value`, `stat`, `flag`: (in) the word to store; (out) receives the word
 */

/* The manual pages are generated from these comments. "As f()" or "otherwise as f()" in a function's first sentence
 * puts the function on the page of f(), whose arguments and results then apply to it too. */
#ifndef SHMNM_H
#define SHMNM_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

/** Marks each function that the library exports. */
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
 * @defgroup shmnm_results Result codes
 * @{
 */

/** Every result code: X(name, value, meaning). 18 is not used, and 19 stays inside the library. */
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

/** The result codes listed in SHMNM_RESULTS. */
enum shmnm_result {
#define SHMNM_RESULT(name, value, meaning) name = value,
    SHMNM_RESULTS(SHMNM_RESULT)
#undef SHMNM_RESULT
};

/** @} */

/**
 * @defgroup shmnm_format The region's format
 *
 * S is the maximum number of servers, H of hb resources and N of np resources; F is the number of fst resources. The
 * region holds, one after the other:
 *
 *     header                1084 bytes
 *     server table          S records of 320 bytes
 *     hb table              584 * H * S bytes reserved, H records of 584 + 4 * S bytes
 *     np table              584 * N * S bytes reserved, N records of 584 + 4 * S bytes
 *     fst table             F records of 584 bytes
 *     fst process-id table  S * F records of 324 bytes
 *     network-wide states   (2 * H + N) * S words; hb resource r on server p has word r * S + p
 *
 * Records are packed: the first `count` records of a table are in use, in the order in which they were added. All
 * numbers are little-endian.
 * @{
 */

/** The region's header, 1084 bytes. */
typedef struct shmnm_header {
    int32_t hbinfo_b;          /**< the second value of shmnm_sethbinfo_ex() */
    int32_t hbinfo_a;          /**< the first value of shmnm_sethbinfo_ex() */
    int32_t max_servers;       /**< S as calls read it: the length of every per-server array */
    int32_t max_hb;            /**< H: the limit that an addition is tested against */
    int32_t max_np;            /**< N: the limit that an addition is tested against */
    int32_t fst_count;         /**< F */
    int32_t fst_pid_limit;     /**< S * F */
    int32_t server_count;      /**< servers in use */
    int32_t hb_count;          /**< hb resources in use */
    int32_t np_count;          /**< np resources in use */
    int32_t fst_pid_count;     /**< names with process ids in use */
    uint32_t waitstat;         /**< opaque, except to shmnm_getnodecombstat() */
    uint32_t bwflag;           /**< opaque */
    uint32_t bwflagdisk;       /**< opaque */
    uint32_t clstat;           /**< opaque */
    uint32_t dfailstatus;      /**< 1 while a network partition is simulated, else 0 */
    uint8_t reserved_64[1020]; /**< always zero */
} shmnm_header;

/** One server, 320 bytes. The index of the record in the table is the server's position. */
typedef struct shmnm_server {
    char name[256];           /**< NUL-terminated, zero-padded */
    int32_t pri;              /**< given by the caller, need not be unique; the svid of the resource functions */
    uint32_t nodestat;        /**< 1: alive, as shmnm_chkalivesv() sees it; 2 in a new record */
    uint32_t nodestat_nw;     /**< opaque; 2 in a new record */
    uint32_t downnotifystat;  /**< opaque; 0 in a new record */
    uint8_t reserved_272[4];  /**< always zero */
    uint32_t isolateflag;     /**< opaque, except to shmnm_getnodecombstat() */
    uint32_t pingstat;        /**< opaque */
    uint32_t holdstat;        /**< opaque */
    uint32_t dfailstatus;     /**< 1 while this server is simulated as failed, else 0 */
    uint8_t reserved_292[28]; /**< always zero */
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
    char name[256];           /**< zero-padded; NUL-terminated unless it fills the field */
    uint32_t pid[3];          /**< one per kind */
    uint32_t piddata[3][2];   /**< one 64-bit value per kind, its low word first */
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

/** @} */

/**
 * @defgroup shmnm_life The region's life
 *
 * @par Locks
 * Within one process, create, attach, detach and delete calls run one at a time. They do not take the cross-process
 * lock.
 * @{
 */

/**
 * Creates the region from the cluster configuration and maps it.
 *
 * If the region exists already, it is mapped and its contents stay. A new region is filled with zeros. In both cases
 * the configured counts are written into the header: the configuration is the authority at every mapping. A process
 * that has mapped the region already gets SHMNM_OK, and nothing changes. Creating does not count as attaching: one
 * shmnm_detach() unmaps the region, and only shmnm_delete() closes the handle obtained here.
 *
 * @retval SHMNM_ERR_XMLINIT     the configuration library does not start; no log line
 * @retval SHMNM_ERR_LOADCONFIG  the configuration cannot be loaded; no log line
 * @retval SHMNM_ERR_LOADINFO    the installation path is not known
 * @retval SHMNM_ERR_CREATEMAP   five attempts failed; the call waits one second after each
 * @retval SHMNM_ERR_MAPVIEW     the region was created but could not be mapped
 * @pre None: the region need not be mapped.
 */
SHMNM_API uint32_t shmnm_create(void);

/**
 * Maps the region that another process created.
 *
 * Further calls only raise a count; the region is unmapped after the same number of shmnm_detach() calls. This
 * process's own configuration determines where the areas start, and its counts are written into the header. The library
 * does not notice a configuration that differs from the creator's.
 *
 * @retval SHMNM_ERR_XMLINIT     the configuration library does not start; no log line
 * @retval SHMNM_ERR_LOADCONFIG  the configuration cannot be loaded; no log line
 * @retval SHMNM_ERR_LOADINFO    the installation path is not known
 * @retval SHMNM_ERR_OPENMAP     there is no region, or this process may not open it
 * @retval SHMNM_ERR_MAPVIEW     the region could not be mapped
 * @pre None: the region need not be mapped.
 */
SHMNM_API uint32_t shmnm_attach(void);

/**
 * Undoes one attach; undoing the last attach unmaps the region.
 *
 * The last detach also closes the log and the handle obtained by shmnm_attach(). After shmnm_create() a single detach
 * unmaps the region at once, and the handle obtained by shmnm_create() stays open, deliberately.
 */
SHMNM_API uint32_t shmnm_detach(void);

/**
 * Unmaps the region and closes the handle obtained by shmnm_create().
 *
 * Closes the log as well, even when nothing is mapped. The region itself lives on while any process holds a handle. The
 * count of attaches stays as it is, deliberately.
 */
SHMNM_API uint32_t shmnm_delete(void);

/**
 * Fills the whole region with zeros.
 *
 * The header's maximum values and counts become zero too, so nothing can be added until the next shmnm_create(),
 * shmnm_attach() or shmnm_setmaxvalue_ex(). Writes no entry line, deliberately.
 *
 * @par Locks
 * Takes no lock: hold shmnm_rwlock().
 */
SHMNM_API uint32_t shmnm_clear(void);

/**
 * Copies the region's raw bytes.
 *
 * @param[out]    buf   receives the bytes; null: ask for the size
 * @param[in,out] size  bytes that `buf` can hold; set to the region's size if `buf` is null, otherwise left as it is
 * @retval SHMNM_ERR_PARAM   `size` is null
 * @retval SHMNM_ERR_BUFFER  *size, signed, is below the region's size
 * @note If the mapping is smaller than this process's configuration asks for, the missing bytes are zeros in `buf`.
 *
 * @par Locks
 * Takes no lock: hold shmnm_rolock() for a consistent copy.
 */
SHMNM_API uint32_t shmnm_dump(uint8_t* buf, int32_t* size);

/** @} */

/**
 * @defgroup shmnm_lock The lock
 *
 * One mutex for all processes; the functions for reading and for writing take the same mutex. It belongs to the thread
 * that took it. That thread may take it again and must release it as often as it took it. If the owner ends, the lock
 * passes to the next thread that takes it.
 *
 * @pre None: the region need not be mapped.
 *
 * @par Locks
 * Hold this lock around calls of the other functions whose reads and writes must be consistent.
 * @{
 */

/**
 * Takes the lock for reading.
 *
 * @param[in] timeout_ms  milliseconds to wait at most; 0 does not wait, 0xFFFFFFFF waits without limit
 * @retval SHMNM_ERR_LOCK  the time-out passed; every other outcome is SHMNM_OK, deliberately
 */
SHMNM_API uint32_t shmnm_rolock(uint32_t timeout_ms);
/**
 * Releases the lock taken by shmnm_rolock().
 *
 * Always returns SHMNM_OK, even if this thread does not own the lock.
 */
SHMNM_API uint32_t shmnm_rounlock(void);
/** Takes the lock for writing; otherwise as shmnm_rolock(). */
SHMNM_API uint32_t shmnm_rwlock(uint32_t timeout_ms);
/** Releases the lock taken by shmnm_rwlock(); otherwise as shmnm_rounlock(). */
SHMNM_API uint32_t shmnm_rwunlock(void);

/** @} */

/**
 * @defgroup shmnm_values Cluster-wide values
 * @{
 */

/**
 * Sets the three maximum values of the header.
 *
 * No record moves. All calls take the distance between records and the tables' limits from these values, so values
 * other than the configured ones change how the region is read. The next create or attach overwrites them.
 *
 * @param[in] servers, hb, np  each at least 1, in this order; there is no upper limit
 * @retval SHMNM_ERR_PARAM  one of them is below 1
 */
SHMNM_API uint32_t shmnm_setmaxvalue_ex(int32_t servers, int32_t hb, int32_t np);
/**
 * Gets the three maximum values of the header.
 *
 * @param[out] servers, hb, np  the values, in this order
 * @retval SHMNM_ERR_PARAM  a pointer is null
 */
SHMNM_API uint32_t shmnm_getmaxvalue_ex(uint32_t* servers, uint32_t* hb, uint32_t* np);

/**
 * Sets the hb info pair. The region holds `b` before `a`.
 *
 * @param[in] a, b  each at least 1
 * @retval SHMNM_ERR_PARAM  one of them is below 1
 */
SHMNM_API uint32_t shmnm_sethbinfo_ex(int32_t a, int32_t b);
/**
 * Gets the hb info pair.
 *
 * @param[out] a, b  the values given to shmnm_sethbinfo_ex()
 * @retval SHMNM_ERR_PARAM  a pointer is null
 */
SHMNM_API uint32_t shmnm_gethbinfo_ex(uint32_t* a, uint32_t* b);

/** Sets the wait state, which shmnm_getnodecombstat() reads, to any value. */
SHMNM_API uint32_t shmnm_setwaitstat(uint32_t value);
/** Gets the wait state. @retval SHMNM_ERR_PARAM  `value` is null */
SHMNM_API uint32_t shmnm_getwaitstat(uint32_t* value);
/** Sets the bw flag; otherwise as shmnm_setwaitstat(). */
SHMNM_API uint32_t shmnm_setbwflag(uint32_t value);
/** Gets the bw flag; otherwise as shmnm_getwaitstat(). */
SHMNM_API uint32_t shmnm_getbwflag(uint32_t* value);
/** Sets the bw flag of the disk; otherwise as shmnm_setwaitstat(). */
SHMNM_API uint32_t shmnm_setbwflagdisk(uint32_t value);
/** Gets the bw flag of the disk; otherwise as shmnm_getwaitstat(). */
SHMNM_API uint32_t shmnm_getbwflagdisk(uint32_t* value);
/** Sets the cluster state; otherwise as shmnm_setwaitstat(). */
SHMNM_API uint32_t shmnm_setclstat(uint32_t value);
/** Gets the cluster state; otherwise as shmnm_getwaitstat(). */
SHMNM_API uint32_t shmnm_getclstat(uint32_t* value);

/** @} */

/**
 * @defgroup shmnm_servers Servers
 *
 * Callers identify a server by its name or, in the functions for resources, by its priority. In the region a server has
 * a position: its index in the table, which is also the index of its word in every resource's row of states. A lookup
 * takes the first match in order of position. Hold shmnm_rwlock() around the three functions that change the table.
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `name`: the server's name
 *  - `pri`: (in) the server's priority; (out) receives the server's priority
 * @{
 */

/**
 * Appends a server to the table.
 *
 * Its nodestat and nodestat_nw become 2 and its downnotifystat 0. Its other words keep the value of the free slot (0).
 * Its state becomes 2 in every resource's rows.
 *
 * @param[in] name  cut to 255 bytes without a warning; lookups, including the test for an existing server, do not find
 *                  the longer name
 * @param[in] pri   any value; several servers may have the same
 * @retval SHMNM_ERR_PARAM      `name` is null
 * @retval SHMNM_ERR_COUNTOVER  there are as many servers as the header allows, or more; tested before the names
 * @retval SHMNM_ERR_EXIST      a server of that name exists
 * @retval SHMNM_ERR_ADDSVSTAT  shmnm_addhbrscsvstat() or shmnm_addnprscsvstat() failed; the server stays in the table,
 *                              deliberately
 * @note It calls shmnm_addhbrscsvstat() and shmnm_addnprscsvstat(), which write their own entry and exit lines.
 */
SHMNM_API uint32_t shmnm_addnode(const char* name, int32_t pri);

/**
 * Removes a server.
 *
 * The servers after it move down one position, and so do their states in every resource's rows.
 *
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 * @retval SHMNM_ERR_RMSVSTAT  shmnm_rmhbrscsvstat() or shmnm_rmnprscsvstat() failed; the server is removed anyway,
 *                             deliberately
 * @note It calls shmnm_rmhbrscsvstat() and shmnm_rmnprscsvstat(), which write their own entry and exit lines.
 */
SHMNM_API uint32_t shmnm_rmnode(const char* name);

/**
 * Changes the priority of a server.
 *
 * Another server may have the same priority. The server's position stays.
 *
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_modifynode(const char* name, int32_t pri);

/**
 * Lists the names of the servers, in order of position.
 *
 * @param[out]    buf   the names, each with its NUL, then one more NUL (no names: two NULs); null: measure only
 * @param[in,out] size  bytes that `buf` can hold, below 2^31; on success the bytes used or, when measuring, needed
 * @retval SHMNM_ERR_PARAM   `size` is null
 * @retval SHMNM_ERR_BUFFER  too small, or 2^31 or more; `buf` keeps the names that fitted, without the final NUL, and
 *                           `size` stays as it was; no error line
 */
SHMNM_API uint32_t shmnm_enumnode(char* buf, uint32_t* size);

/**
 * Gets the priority of the first server with a name.
 *
 * @retval SHMNM_ERR_PARAM     `name` or `pri` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_getnodepri(const char* name, int32_t* pri);

/**
 * Gets the name of the first server with a priority.
 *
 * The output is the first argument.
 *
 * @param[out] name  256 bytes; receives the name with its NUL, and the rest stays as it is
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that priority
 */
SHMNM_API uint32_t shmnm_getnodename(char* name, int32_t pri);

/** @} */

/**
 * @defgroup shmnm_server_states States of a server
 *
 * Each server has six words. They are set and read by the server's name and take any value. Two more functions evaluate
 * them: one combines the words of a server to one state, the other tests whether any server is alive.
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `name`: the server's name
 * @{
 */

/**
 * Sets a server's state.
 *
 * shmnm_chkalivesv() takes 1 for alive. A new server has 2.
 *
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_setnodestat(const char* name, uint32_t stat);
/**
 * Gets a server's state.
 *
 * @retval SHMNM_ERR_PARAM     a pointer is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_getnodestat(const char* name, uint32_t* stat);
/** Sets a server's network-wide state; otherwise as shmnm_setnodestat(). A new server has 2. */
SHMNM_API uint32_t shmnm_setnodestat_nw(const char* name, uint32_t stat);
/** Gets a server's network-wide state; otherwise as shmnm_getnodestat(). */
SHMNM_API uint32_t shmnm_getnodestat_nw(const char* name, uint32_t* stat);
/** Sets a server's down-notification state; otherwise as shmnm_setnodestat(). */
SHMNM_API uint32_t shmnm_setdownnotifystat(const char* name, uint32_t stat);
/** Gets a server's down-notification state; otherwise as shmnm_getnodestat(). */
SHMNM_API uint32_t shmnm_getdownnotifystat(const char* name, uint32_t* stat);
/** Sets a server's isolation flag; otherwise as shmnm_setnodestat(). */
SHMNM_API uint32_t shmnm_setisolateflag(const char* name, uint32_t flag);
/** Gets a server's isolation flag; otherwise as shmnm_getnodestat(). */
SHMNM_API uint32_t shmnm_getisolateflag(const char* name, uint32_t* flag);
/** Sets a server's ping state; otherwise as shmnm_setnodestat(). */
SHMNM_API uint32_t shmnm_setpingstat(const char* name, uint32_t stat);
/** Gets a server's ping state; otherwise as shmnm_getnodestat(). */
SHMNM_API uint32_t shmnm_getpingstat(const char* name, uint32_t* stat);
/** Sets a server's hold state; otherwise as shmnm_setnodestat(). */
SHMNM_API uint32_t shmnm_setholdstat(const char* name, uint32_t stat);
/** Gets a server's hold state; otherwise as shmnm_getnodestat(). */
SHMNM_API uint32_t shmnm_getholdstat(const char* name, uint32_t* stat);

/**
 * Gets a server's state combined with its isolation flag and the cluster's wait state.
 *
 * It follows from this table:
 *
 *     state  wait state   isolation flag  combined
 *     1      0 or 1       0               1
 *     1      0 or 1       1               0x10
 *     1      0 or 1       other           none: stat keeps its value, deliberately
 *     1      2            any             0x10002
 *     1      3 and more   any             9
 *     2      0 or 3       any             2
 *     2      2            any             0x10002
 *     2      other        any             9
 *     other  any          any             9
 *
 * @param[in,out] stat  the combined state; set it before the call, because one row leaves it alone
 * @retval SHMNM_ERR_PARAM     `name` or `stat` is null
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_getnodecombstat(const char* name, uint32_t* stat);

/**
 * Tests whether any server, or any server except one, is alive.
 *
 * A server is alive if its state is 1.
 *
 * @param[in]  name  the server to leave out; null: none is left out. An unknown name is not an error.
 * @param[out] flag  1 if a server is alive, otherwise 0
 * @retval SHMNM_ERR_PARAM  `flag` is null
 * @note Writes a line at level 4, "flag:%d" or "flag(%s):%d", whose number is the low half of the pointer `flag` and
 * not what it points to, deliberately.
 */
SHMNM_API uint32_t shmnm_chkalivesv(const char* name, uint32_t* flag);

/** @} */

/**
 * @defgroup shmnm_resources Resources
 *
 * The hb and the np functions do the same on two tables. A resource is identified by its type and its name together;
 * the same name may exist under several types. A lookup takes the first match in order of position. Where a function
 * accepts a null type it means any type, and the log's not-found lines show it as "-".
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `type`: the resource's type
 *  - `name`: the resource's name
 *  - `pri`: (in) the resource's priority; (out) receives the resource's priority
 * @{
 */

/**
 * Appends an hb resource to the table.
 *
 * Its state becomes 2 on every server, and so does its network-wide state. The resource's own state keeps the value of
 * the free slot: 0.
 *
 * @param[in] type, name  each cut to 31 bytes without a warning; lookups, including the test for an existing resource,
 *                        do not find the longer text
 * @param[in] pri         opaque
 * @retval SHMNM_ERR_PARAM    `type` or `name` is null; empty texts are accepted
 * @retval SHMNM_ERR_RSCOVER  there are as many resources as the header allows, or more; tested before the names
 * @retval SHMNM_ERR_EXIST    a resource of that type and name exists
 */
SHMNM_API uint32_t shmnm_addhbrsc(const char* type, const char* name, uint32_t pri);
/** As shmnm_addhbrsc(), for np: there is no network-wide row. */
SHMNM_API uint32_t shmnm_addnprsc(const char* type, const char* name, uint32_t pri);

/**
 * Removes an hb resource.
 *
 * The resources after it move down one position with all their contents and their rows of network-wide states. The slot
 * that becomes free is zeroed; but if the removed resource was the last, its row of network-wide states keeps its
 * values, deliberately.
 *
 * @retval SHMNM_ERR_PARAM     `type` or `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_rmhbrsc(const char* type, const char* name);
/** As shmnm_rmhbrsc(), for np: there are no network-wide rows. */
SHMNM_API uint32_t shmnm_rmnprsc(const char* type, const char* name);

/**
 * Changes the priority of an hb resource.
 *
 * @retval SHMNM_ERR_PARAM     `type` or `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_modifyhbrsc(const char* type, const char* name, uint32_t pri);
/** As shmnm_modifyhbrsc(), for np. */
SHMNM_API uint32_t shmnm_modifynprsc(const char* type, const char* name, uint32_t pri);

/**
 * Gets the priority of an hb resource.
 *
 * @retval SHMNM_ERR_PARAM     a pointer is null
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_gethbrscpri(const char* type, const char* name, uint32_t* pri);
/** As shmnm_gethbrscpri(), for np. */
SHMNM_API uint32_t shmnm_getnprscpri(const char* type, const char* name, uint32_t* pri);

/**
 * Gets the type of the first hb resource with a name.
 *
 * The output is the first argument.
 *
 * @param[out] type  32 bytes; receives the type with its NUL, and the rest stays as it is. May be null: the result code
 *                   alone then tells whether the resource exists.
 * @retval SHMNM_ERR_PARAM     `name` is null or empty
 * @retval SHMNM_ERR_NOTFOUND  no resource has that name
 */
SHMNM_API uint32_t shmnm_gethbrscinfo(char* type, const char* name);
/** As shmnm_gethbrscinfo(), for np. */
SHMNM_API uint32_t shmnm_getnprscinfo(char* type, const char* name);

/**
 * Lists the type of every hb resource, in order of position.
 *
 * A type that several resources have is listed several times, deliberately.
 *
 * @param[out]    buf   the types, each with its NUL, then one more NUL (no types: two NULs); null: measure only
 * @param[in,out] size  bytes that `buf` can hold, below 2^31; on success the bytes used or, when measuring, needed
 * @retval SHMNM_ERR_PARAM   `size` is null
 * @retval SHMNM_ERR_BUFFER  too small, or 2^31 or more; `buf` keeps the types that fitted, without the final NUL, and
 *                           `size` stays as it was; no error line
 */
SHMNM_API uint32_t shmnm_enumhbtype(char* buf, uint32_t* size);
/** As shmnm_enumhbtype(), for np. */
SHMNM_API uint32_t shmnm_enumnptype(char* buf, uint32_t* size);

/**
 * Lists the names of the hb resources, in order of position.
 *
 * @param[in]     type  only resources of this type; null: of every type
 * @param[out]    buf   the names, each with its NUL, then one more NUL (no names: two NULs); null: measure only
 * @param[in,out] size  bytes that `buf` can hold, below 2^31; on success the bytes used or, when measuring, needed
 * @retval SHMNM_ERR_PARAM   `size` is null
 * @retval SHMNM_ERR_BUFFER  too small, or 2^31 or more; `buf` keeps the names that fitted, without the final NUL, and
 *                           `size` stays as it was; no error line
 * @note One pass over the table. While shmnm_rolock() is held, a measured size still fits at the next call.
 */
SHMNM_API uint32_t shmnm_enumhbrsc(const char* type, char* buf, uint32_t* size);
/** As shmnm_enumhbrsc(), for np. */
SHMNM_API uint32_t shmnm_enumnprsc(const char* type, char* buf, uint32_t* size);

/** @} */

/**
 * @defgroup shmnm_resource_states States of a resource
 *
 * A resource has one state of its own and one state per server. These functions identify a server by its priority.
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `type`: the resource's type
 *  - `name`: the resource's name
 * @{
 */

/**
 * Sets an hb resource's own state.
 *
 * @param[in] type  may be null
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_sethbrscstat(const char* type, const char* name, uint32_t stat);
/** As shmnm_sethbrscstat(), for np. */
SHMNM_API uint32_t shmnm_setnprscstat(const char* type, const char* name, uint32_t stat);

/**
 * Gets an hb resource's own state.
 *
 * @param[in] type  may be null
 * @retval SHMNM_ERR_PARAM     `name` or `stat` is null
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_gethbrscstat(const char* type, const char* name, uint32_t* stat);
/** As shmnm_gethbrscstat(), for np. */
SHMNM_API uint32_t shmnm_getnprscstat(const char* type, const char* name, uint32_t* stat);

/**
 * Sets an hb resource's state on a server.
 *
 * @param[in] type  may be null
 * @param[in] svid  the server's priority; if several servers share it, the first of them counts
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no such server (looked up first) or no such resource
 */
SHMNM_API uint32_t shmnm_sethbrscsvstat(const char* type, const char* name, int32_t svid, uint32_t stat);
/** As shmnm_sethbrscsvstat(), for np. */
SHMNM_API uint32_t shmnm_setnprscsvstat(const char* type, const char* name, int32_t svid, uint32_t stat);

/**
 * Gets an hb resource's state on a server.
 *
 * @param[in]  type  may be null
 * @param[in]  svid  the server's priority; if several servers share it, the first of them counts
 * @param[out] stat  may be null: the result code alone then tells whether the server and the resource exist
 * @retval SHMNM_ERR_PARAM     `name` is null
 * @retval SHMNM_ERR_NOTFOUND  no such server (looked up first) or no such resource
 */
SHMNM_API uint32_t shmnm_gethbrscsvstat(const char* type, const char* name, int32_t svid, uint32_t* stat);
/** As shmnm_gethbrscsvstat(), for np. */
SHMNM_API uint32_t shmnm_getnprscsvstat(const char* type, const char* name, int32_t svid, uint32_t* stat);

/**
 * Lists an hb resource's states on all servers.
 *
 * The states are in the order of the servers' positions.
 *
 * @param[in]     type  may be null
 * @param[out]    buf   one word per server; null: ask for the size, which also succeeds for a resource that does not
 *                      exist
 * @param[in,out] size  bytes that `buf` can hold; on success 4 bytes per server
 * @retval SHMNM_ERR_PARAM     `name` or `size` is null
 * @retval SHMNM_ERR_BUFFER    too small, tested before the lookup; no error line
 * @retval SHMNM_ERR_NOTFOUND  no such resource
 */
SHMNM_API uint32_t shmnm_enumhbrscsvstat(const char* type, const char* name, uint32_t* buf, uint32_t* size);
/** As shmnm_enumhbrscsvstat(), for np. */
SHMNM_API uint32_t shmnm_enumnprscsvstat(const char* type, const char* name, uint32_t* buf, uint32_t* size);

/**
 * Lists the states of all hb resources on a server.
 *
 * The states are in the order of the resources' positions.
 *
 * @param[in]     svname  the server's name
 * @param[out]    buf     one word per resource; null: ask for the size, which also succeeds for a server that does not
 *                        exist
 * @param[in,out] size    bytes that `buf` can hold; set to 4 bytes per resource if `buf` is null, otherwise left as it
 *                        is, deliberately unlike shmnm_enumhbrscsvstat()
 * @retval SHMNM_ERR_PARAM     `svname` or `size` is null
 * @retval SHMNM_ERR_BUFFER    too small, tested before the lookup; no error line
 * @retval SHMNM_ERR_NOTFOUND  no server has that name
 */
SHMNM_API uint32_t shmnm_enumsvhbrscstat(const char* svname, uint32_t* buf, uint32_t* size);
/** As shmnm_enumsvhbrscstat(), for np. */
SHMNM_API uint32_t shmnm_enumsvnprscstat(const char* svname, uint32_t* buf, uint32_t* size);

/**
 * Sets all states of every hb resource of a type.
 *
 * Sets each resource's own state first, then its state on every server. It is not an error if no resource has the type.
 * Network-wide states stay as they are.
 *
 * @retval SHMNM_ERR_PARAM  `type` is null
 */
SHMNM_API uint32_t shmnm_settypehbstat(const char* type, uint32_t stat);
/** As shmnm_settypehbstat(), for np. */
SHMNM_API uint32_t shmnm_settypenpstat(const char* type, uint32_t stat);

/** @} */

/**
 * @defgroup shmnm_descriptions Descriptions of resources
 *
 * Each resource has 256 free bytes; no NUL is added or expected. These functions search for records 584 bytes apart, as
 * if no states followed each record, deliberately. So they find the resource at position 0; they do not in practice
 * find any other resource until removals have moved it to position 0.
 *
 * Arguments that mean the same unless a function says otherwise:
 *  - `type`: the resource's type
 *  - `name`: the resource's name
 * @{
 */

/**
 * Sets an hb resource's description.
 *
 * @param[in] data  the bytes
 * @param[in] len   bytes in `data`, above 0; at most 256 are stored. The rest of a longer description stays.
 * @retval SHMNM_ERR_PARAM     a pointer is null, or `len` is below 1
 * @retval SHMNM_ERR_NOTFOUND  no such resource where the function searches
 */
SHMNM_API uint32_t shmnm_sethbdescript(const char* type, const char* name, const void* data, int32_t len);
/** As shmnm_sethbdescript(), for np. */
SHMNM_API uint32_t shmnm_setnpdescript(const char* type, const char* name, const void* data, int32_t len);

/**
 * Gets an hb resource's description.
 *
 * @param[out] buf   the bytes, without a NUL of its own
 * @param[in]  size  points to the bytes that `buf` can hold, above 0; at most 256 are copied. Null counts as 0.
 * @retval SHMNM_ERR_PARAM     a pointer is null, or *size is below 1
 * @retval SHMNM_ERR_NOTFOUND  no such resource where the function searches
 */
SHMNM_API uint32_t shmnm_gethbdescript(const char* type, const char* name, void* buf, const int32_t* size);
/** As shmnm_gethbdescript(), for np. */
SHMNM_API uint32_t shmnm_getnpdescript(const char* type, const char* name, void* buf, const int32_t* size);

/** @} */

/**
 * @defgroup shmnm_columns Server columns of the resource tables
 *
 * shmnm_addnode() and shmnm_rmnode() call these functions, so that a server's position stays the index of its word in
 * every row. An index below 0 is taken literally: it reaches the words before each row, as long as these lie in the
 * mapped view.
 *
 * @par Locks
 * Takes no lock: hold shmnm_rwlock().
 * @{
 */

/**
 * Opens the column of a new server in every hb resource's rows.
 *
 * Later words move up, and the new word becomes 2. Call it after the count of servers has been raised. The move stops
 * one word short, deliberately: for an index below the last two, the words of the last server are not written, and the
 * words of the server before it are lost.
 *
 * @param[in] index  the server's position
 * @retval SHMNM_ERR_INDEX  `index` is not below the number of servers, or the column leaves the view; nothing is
 *                          changed
 */
SHMNM_API uint32_t shmnm_addhbrscsvstat(int32_t index);
/** As shmnm_addhbrscsvstat(), for np: there are no network-wide rows. */
SHMNM_API uint32_t shmnm_addnprscsvstat(int32_t index);

/**
 * Closes the column of a removed server in every hb resource's rows.
 *
 * Later words move down; the last word also stays in its old place. Call it after the count of servers has been
 * lowered.
 *
 * @param[in] index  the server's former position; may equal the number of servers left, deliberately
 * @retval SHMNM_ERR_INDEX  `index` is above the number of servers, or the column leaves the view; nothing is changed
 */
SHMNM_API uint32_t shmnm_rmhbrscsvstat(int32_t index);
/** As shmnm_rmhbrscsvstat(), for np: there are no network-wide rows. */
SHMNM_API uint32_t shmnm_rmnprscsvstat(int32_t index);

/** @} */

/**
 * @defgroup shmnm_simulation Simulated network partition
 *
 * The cluster has one word and so has each server; each word is 0 or 1. The callers' arrays are indexed by server
 * priority.
 * @{
 */

/**
 * Switches the simulation of a network partition on or off.
 *
 * @param[in] flag      1: on; 0: off, all words become 0; any other value counts as 0, with a warning
 * @param[in] nodefail  the word of each server, indexed by its priority; any value but 0 and 1 counts as 0, with a
 *                      warning. Null: 0 for all. Used only if `flag` is 1.
 * @param[in] count     entries in `nodefail`; a server whose priority is negative, or not below `count`, gets 0
 * @note Never fails on a mapped region. Writes one line per server, then one line for the cluster, at level 4; warnings
 * are at level 2. The cluster's word is stored last.
 */
SHMNM_API uint32_t shmnm_setnpsimu(uint32_t flag, const uint32_t* nodefail, int32_t count);

/**
 * Gets whether a network partition is simulated, for the cluster and each server.
 *
 * @param[out] flag      the cluster's word; may be null
 * @param[out] nodefail  while the simulation is on: the word of each server, indexed by its priority, and 0 where no
 *                       server has that priority. If two servers share a priority, the word of the later server counts.
 *                       While it is off: left as it is
 * @param[in]  count     entries in `nodefail`, at least as many as there are servers
 * @retval SHMNM_ERR_PARAM  `nodefail` is null, or `count` is below the number of servers
 * @note A server whose priority lies outside `nodefail` is left out, with a warning at level 2.
 */
SHMNM_API uint32_t shmnm_getnpsimu(uint32_t* flag, uint32_t* nodefail, int32_t count);

/**
 * Gets whether a network partition is simulated, for the cluster alone.
 *
 * @param[out] flag  the cluster's word; may be null
 */
SHMNM_API uint32_t shmnm_getnpsimuflag(uint32_t* flag);

/** @} */

/**
 * @defgroup shmnm_network_states Network-wide states of the hb resources
 *
 * Every hb resource has a second state on every server, kept in a separate area. It is 2 for a new resource or server.
 * @{
 */

/** Sets an hb resource's network-wide state on a server; otherwise as shmnm_sethbrscsvstat(). */
SHMNM_API uint32_t shmnm_setrscsvstat_nw(const char* type, const char* name, int32_t svid, uint32_t stat);
/** Gets an hb resource's network-wide state on a server; otherwise as shmnm_gethbrscsvstat(). */
SHMNM_API uint32_t shmnm_getrscsvstat_nw(const char* type, const char* name, int32_t svid, uint32_t* stat);
/** Lists an hb resource's network-wide states on all servers; otherwise as shmnm_enumhbrscsvstat(). */
SHMNM_API uint32_t shmnm_enumrscsvstat_nw(const char* type, const char* name, uint32_t* buf, uint32_t* size);
/** Lists the network-wide states of all hb resources on a server; otherwise as shmnm_enumsvhbrscstat(). */
SHMNM_API uint32_t shmnm_enumsvrscstat_nw(const char* svname, uint32_t* buf, uint32_t* size);

/** @} */

/**
 * @defgroup shmnm_fst The fst resource
 *
 * The fst resource has a state and a description, both in the first fst record, and process ids by name. If the region
 * was laid out without fst records, the functions for the state and the description return SHMNM_ERR_NOTFOUND without
 * an error line.
 * @{
 */

/**
 * Sets the state of the fst resource to any value.
 *
 * @retval SHMNM_ERR_NOTFOUND  the region has no fst record
 */
SHMNM_API uint32_t shmnm_setfstrscstat(uint32_t stat);
/**
 * Gets the state of the fst resource.
 *
 * @retval SHMNM_ERR_PARAM     `stat` is null
 * @retval SHMNM_ERR_NOTFOUND  the region has no fst record
 */
SHMNM_API uint32_t shmnm_getfstrscstat(uint32_t* stat);

/**
 * Sets the description of the fst resource.
 *
 * @param[in] descript  the bytes
 * @param[in] len       bytes in `descript`, above 0; at most 256 are stored. The rest of a longer description stays.
 * @retval SHMNM_ERR_PARAM     `descript` is null, or `len` is below 1
 * @retval SHMNM_ERR_NOTFOUND  the region has no fst record
 */
SHMNM_API uint32_t shmnm_setfstdescript(const void* descript, int32_t len);
/**
 * Gets the description of the fst resource.
 *
 * @param[out] descript  the bytes, without a NUL of its own
 * @param[in]  len       points to the bytes that `descript` can hold, above 0; at most 256 are copied. Null counts as
 *                       0.
 * @retval SHMNM_ERR_PARAM     `descript` is null, or *len is below 1
 * @retval SHMNM_ERR_NOTFOUND  the region has no fst record
 */
SHMNM_API uint32_t shmnm_getfstdescript(void* descript, const int32_t* len);

/**
 * Sets the process id of one kind under a name, and the value beside it.
 *
 * A new name gets a record and keeps it for the life of the region.
 *
 * @param[in] name     cut to 256 bytes without a warning; stored without a NUL if it fills them; null is the
 *                     empty name
 * @param[in] kind     0, 1 or 2
 * @param[in] pid      opaque
 * @param[in] piddata  opaque
 * @retval SHMNM_ERR_COUNTOVER  the table is full, tested before `kind`; a name that has a record cannot be updated then
 *                              either, deliberately
 * @retval SHMNM_ERR_NOTINIT    `kind` is not 0, 1 or 2, deliberately (the exit line shows SHMNM_ERR_PARAM); a new name
 *                              gets its record anyway
 */
SHMNM_API uint32_t shmnm_setfstrscpid(const char* name, int32_t kind, uint32_t pid, uint64_t piddata);

/**
 * Gets the process id of one kind under a name, and the value beside it.
 *
 * A name without a record is not an error: the call returns SHMNM_OK, whatever `kind` is, and leaves the outputs as
 * they were. Set them before the call.
 *
 * @param[in]  name          null is the empty name
 * @param[in]  kind          0, 1 or 2
 * @param[out] pid, piddata  each may be null
 * @retval SHMNM_ERR_NOTINIT  the name has a record but `kind` is not 0, 1 or 2, deliberately (the exit line shows
 *                            SHMNM_ERR_PARAM)

 */
SHMNM_API uint32_t shmnm_getfstrscpid(const char* name, int32_t kind, uint32_t* pid, uint64_t* piddata);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
