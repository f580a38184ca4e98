/**
 * @file shmnmpicture.h
 * Reads the picture of a failover cluster, for tools and language bindings: copies the region of this machine without
 * attaching to it, or reads a dump, or asks a server of shmnmweb, and answers as shmnmctl does.
 *
 * What holds for every function unless it says otherwise:
 *  - Result: SHMNMPICTURE_OK or another value of SHMNMPICTURE_RESULTS. Its hundreds are the exit status of shmnmctl
 *    for the same failure: 3xx means status 3. Later versions may add results, so a program should treat a result
 *    that it does not know by its hundreds. Functions throw nothing and write nothing to the terminal.
 *  - Error text: shmnmpicture_error() explains the last failed call with a picture. The text belongs to the picture
 *    and not to the thread: a picture is used by one thread at a time, so the text cannot be overwritten by another
 *    thread, and no per-thread memory outlives an unloaded library. For this reason an open function that fails gives
 *    a picture too.
 *  - Failure: leaves the copy and the other outputs as they were.
 *  - Threads: one thread at a time may use a picture; it may be another thread each time. Several threads may use
 *    different pictures at the same time.
 *  - Memory: a text belongs to the picture and stays valid until the next call with the same picture, whatever that
 *    call is. Arguments are copied.
 *  - Text: what the library gives is ASCII and ends with a NUL, which a size does not count. Names within keys and JSON
 *    are escaped: every byte other than letters, digits and -_.:@+, is %XX. Arguments are NUL-terminated bytes. File
 *    names are bytes on Linux and UTF-8 on Windows.
 *  - Environment: the same variables as for libkzmshmnm say which region is this machine's. The library sets none.
 *  - Forks: a child process may go on with a picture of its parent, except with one of an address.
 */
#ifndef SHMNMPICTURE_H
#define SHMNMPICTURE_H

#include <stddef.h>
#include <stdint.h>

/** Marks each function that the library exports. */
#if defined(_WIN32) && defined(SHMNMPICTURE_BUILD)
#define SHMNMPICTURE_API __declspec(dllexport)
#elif defined(_WIN32)
#define SHMNMPICTURE_API __declspec(dllimport)
#else
#define SHMNMPICTURE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Every result: X(name, value, meaning). */
#define SHMNMPICTURE_RESULTS(X)                                                                                   \
    X(SHMNMPICTURE_OK, 0, "success")                                                                              \
    X(SHMNMPICTURE_ERR_NO_SUCH_KEY, 100, "the picture has no word with this key")                                 \
    X(SHMNMPICTURE_ERR_ARGUMENT, 200, "a required pointer is null, or an option is out of range")                 \
    X(SHMNMPICTURE_ERR_INVALID, 201, "the address is not an address")                                             \
    X(SHMNMPICTURE_ERR_INVALID_CONDITION, 202, "the condition is not a condition")                                \
    X(SHMNMPICTURE_ERR_NO_SUCH_WORD, 203, "no region can have such a key, whatever names it contains")            \
    X(SHMNMPICTURE_ERR_NO_REGION, 300, "no process holds the region")                                             \
    X(SHMNMPICTURE_ERR_LOCK_TIMEOUT, 400, "waiting for the region's lock timed out")                              \
    X(SHMNMPICTURE_ERR_FAILED, 500, "the system, the library or the server failed")                               \
    X(SHMNMPICTURE_ERR_NOT_A_DUMP, 501, "the file cannot be read, or it is not a dump")                           \
    X(SHMNMPICTURE_ERR_NOT_WHOLE, 502, "the file was cut or is not a dump; SHMNMPICTURE_FORCE shows what it has") \
    X(SHMNMPICTURE_ERR_NO_MEMORY, 503, "memory ran out")

/** The results listed in SHMNMPICTURE_RESULTS. */
enum shmnmpicture_result {
#define SHMNMPICTURE_RESULT(name, value, meaning) name = value,
    SHMNMPICTURE_RESULTS(SHMNMPICTURE_RESULT)
#undef SHMNMPICTURE_RESULT
};

/** Values of shmnmpicture_options::flags, to be added. */
enum shmnmpicture_flag {
    /** Copies also the bytes that are not in use. shmnmpicture_findings() needs them; a dump always has them. */
    SHMNMPICTURE_ALL_BYTES = 1,
    /** Answers also from a file that was cut or is not a dump, as `shmnmctl --force` does. */
    SHMNMPICTURE_FORCE = 2
};

/** How a picture is copied. A structure of zeros with its size means the defaults, as a null pointer does. */
typedef struct shmnmpicture_options {
    uint32_t size;            /**< sizeof(shmnmpicture_options): which version of this structure it is */
    uint32_t flags;           /**< values of shmnmpicture_flag */
    uint32_t lock_timeout_ms; /**< the longest wait for the region's lock; 0: 5000. Linux copies mostly need no lock */
    uint32_t interval_ms;     /**< time between the copies of a waiting shmnmpicture_update(); 0: 50 */
    const char* ca_file;      /**< authorities that https servers are known by, in PEM; null: the system's */
    const char* cert_file;    /**< this client's certificate for https, in PEM; null: none */
    const char* key_file;     /**< its key, if that is in a file of its own; null: in `cert_file` */
} shmnmpicture_options;

/** A copy of a region, and where to get the next copy. */
typedef struct shmnmpicture shmnmpicture;

/** The version of the library that is loaded, such as "1.0.0". Static text. */
SHMNMPICTURE_API const char* shmnmpicture_version(void);

/**
 * Copies this machine's region. Does not attach to it, does not keep it alive and writes nothing to it.
 *
 * @param[in]  options  null: the defaults
 * @param[out] picture  receives a picture even if the call fails, because the picture has the error text and
 *                      shmnmpicture_update() can try again; free it with shmnmpicture_free(). Null if memory ran out
 * @retval SHMNMPICTURE_ERR_ARGUMENT  `picture` is null, or an option is invalid. Such a picture has only an error text
 * @retval SHMNMPICTURE_ERR_NO_REGION, SHMNMPICTURE_ERR_LOCK_TIMEOUT, SHMNMPICTURE_ERR_FAILED  nothing was copied
 */
SHMNMPICTURE_API int32_t shmnmpicture_open_live(const shmnmpicture_options* options, shmnmpicture** picture);

/**
 * Reads a file that shmnmctl dump or shmnm_dump() has written. Otherwise as shmnmpicture_open_live().
 *
 * A file that was cut can be opened if it has a whole header. Questions about it fail with
 * SHMNMPICTURE_ERR_NOT_WHOLE unless SHMNMPICTURE_FORCE is set; shmnmpicture_findings() always answers.
 *
 * @param[in] file  its name: bytes on Linux, UTF-8 on Windows
 * @retval SHMNMPICTURE_ERR_NOT_A_DUMP  it cannot be read, is smaller than a header or larger than any region
 */
SHMNMPICTURE_API int32_t shmnmpicture_open_file(const char* file, const shmnmpicture_options* options,
                                                shmnmpicture** picture);

/**
 * Asks a server of shmnmweb. Otherwise as shmnmpicture_open_live().
 *
 * @param[in] address  as for `shmnmctl --from`: unix:PATH, http://HOST:PORT or https://HOST:PORT; Windows has http only
 * @retval SHMNMPICTURE_ERR_INVALID    it is not an address. Such a picture has only an error text
 * @retval SHMNMPICTURE_ERR_NO_REGION  the server has no region
 * @retval SHMNMPICTURE_ERR_FAILED     the server cannot be reached, is not trusted, or answers something else
 */
SHMNMPICTURE_API int32_t shmnmpicture_open_address(const char* address, const shmnmpicture_options* options,
                                                   shmnmpicture** picture);

/**
 * Copies again from the same place: once, or until the copy has changed.
 *
 * With `wait_ms` it returns when a copy differs, when the time has passed, or soon after a signal was delivered to this
 * thread. A server of shmnmweb tells of changes; other sources are copied every `interval_ms`. If the previous copy
 * failed with SHMNMPICTURE_ERR_NO_REGION, it waits for a region to appear. Any other failure ends the wait at once.
 *
 * @param[in]  wait_ms  0: copies once and does not wait; 0xFFFFFFFF: waits without limit
 * @param[out] changed  receives 1 if a byte or the size differs from the previous copy, if it is another region, or if
 *                      there was no copy or no region before; otherwise 0. May be null
 * @return as the function that opened the picture. After a failure the picture keeps its previous copy, if it has one
 */
SHMNMPICTURE_API int32_t shmnmpicture_update(shmnmpicture* picture, uint32_t wait_ms, int32_t* changed);

/**
 * The whole picture, byte for byte what `shmnmctl status --format json` prints: one line with a newline.
 *
 * @param[out] text  receives the document
 * @param[out] size  receives its bytes; may be null
 * @retval SHMNMPICTURE_ERR_NOT_WHOLE, SHMNMPICTURE_ERR_NOT_A_DUMP  the picture is of a file that was cut or is not a
 *                                     dump, and SHMNMPICTURE_FORCE is not set
 * @return also, for a picture without a copy, the result of the copy that failed
 */
SHMNMPICTURE_API int32_t shmnmpicture_json(shmnmpicture* picture, const char** text, size_t* size);

/**
 * The value of a word: the member "value" of `shmnmctl get --format json KEY`. A number, null for none, or a number
 * over 2^53 as a JSON string. Otherwise as shmnmpicture_json().
 *
 * @param[in] key  such as servers/alpha/nodestat, with escaped names
 * @retval SHMNMPICTURE_ERR_NO_SUCH_KEY   the picture has no such word; the error text may name a similar key
 * @retval SHMNMPICTURE_ERR_NO_SUCH_WORD  no region can have it
 */
SHMNMPICTURE_API int32_t shmnmpicture_value(shmnmpicture* picture, const char* key, const char** text, size_t* size);

/**
 * Whether a condition holds, as `shmnmctl query` answers. Otherwise as shmnmpicture_json().
 *
 * @param[in]  condition  such as "servers/alpha/nodestat=1 and any hb/lan/one/stat=2"; shmnmctl query --help has the
 * grammar
 * @param[out] holds      receives 1 or 0
 * @param[out] unmet      receives the parts because of which it does not hold, such as "servers/alpha/nodestat=1 (it is
 *                        2)"; "" if it holds. May be null
 * @retval SHMNMPICTURE_ERR_INVALID_CONDITION  it is not a condition; the error text has the position
 * @retval SHMNMPICTURE_ERR_NO_SUCH_WORD       no region can have one of its keys
 */
SHMNMPICTURE_API int32_t shmnmpicture_holds(shmnmpicture* picture, const char* condition, int32_t* holds,
                                            const char** unmet);

/**
 * What a healthy region never shows, byte for byte what `shmnmctl verify --format json` prints.
 *
 * @param[out] text  receives the document; without findings its list "findings" is empty
 * @param[out] size  receives its bytes; may be null
 * @retval SHMNMPICTURE_ERR_ARGUMENT  a pointer is null, or a live region or server was copied without
 *                                    SHMNMPICTURE_ALL_BYTES
 * @return also, for a picture without a copy, the result of the copy that failed
 */
SHMNMPICTURE_API int32_t shmnmpicture_findings(shmnmpicture* picture, const char** text, size_t* size);

/**
 * What shmnmctl would warn of: that calls of the library have changed the maxima in the region's header or cleared it,
 * or with SHMNMPICTURE_FORCE why the file is not whole. Otherwise as shmnmpicture_json().
 *
 * @param[out] text  receives one line without a newline; "" for nothing
 */
SHMNMPICTURE_API int32_t shmnmpicture_warning(shmnmpicture* picture, const char** text);

/**
 * Why the last failed call with this picture failed: one printable line without a newline, also after a later call has
 * succeeded; "" if none has failed. Never null.
 *
 * @param[in] picture  null: the text for a picture that could not be made because memory ran out
 */
SHMNMPICTURE_API const char* shmnmpicture_error(const shmnmpicture* picture);

/** Frees a picture with all its texts. @param[in] picture  null: nothing happens */
SHMNMPICTURE_API void shmnmpicture_free(shmnmpicture* picture);

#ifdef __cplusplus
}
#endif

#endif
