/**
 * @file kzmxml.h
 * Reads the cluster's configuration, etc/cluster.xml below the installation path.
 *
 * What holds for every function unless it says otherwise:
 *  - Result   XMLLIB_OK (0) or one of the codes below. A failed call changes nothing, neither the library's state nor
 *             its outputs.
 *  - Order    init, load_config, load_policy, get_value; then the opposite calls in reverse order. A call out of order
 *             is refused (XMLLIB_ERR_ORDER); a bad argument is reported before that.
 *  - Nesting  calls of init, load_config and load_policy are counted. One term, unload_config or unload_policy undoes
 *             one of them; the last releases what the first took. The last unload_config also unloads all policies, and
 *             the last term releases everything.
 *  - Scope    the loaded configuration and the counts belong to the process, not to a thread or a module.
 *  - Threads  any thread may call any function.
 *
 * The file must be a regular file, or a link to one; a FIFO, a device, a socket or a folder is refused at once. It must
 * be one well-formed XML document without a document type, with at most 16 MiB, 256 levels of elements and 100,000
 * elements and attributes. The only entities are the five predefined ones, and nothing outside the file is read.
 */
#ifndef KZMXML_H
#define KZMXML_H

#include <stdint.h>

#if defined(_WIN32) && defined(KZMXML_BUILD)
#define KZMXML_API __declspec(dllexport)
#elif defined(_WIN32)
#define KZMXML_API __declspec(dllimport)
#else
#define KZMXML_API __attribute__((visibility("default")))
#endif

enum {
    XMLLIB_OK = 0,
    XMLLIB_ERR_PARAM = 1,    /**< a null or unsupported argument */
    XMLLIB_ERR_ORDER = 2,    /**< the call that must come before this call was not made */
    XMLLIB_ERR_FILE = 3,     /**< the file is missing, unreadable, not a regular file, or larger than 16 MiB */
    XMLLIB_ERR_FORMAT = 4,   /**< the file is not a document as described above */
    XMLLIB_ERR_NOTFOUND = 5, /**< no such policy, or no such element in a loaded policy */
    XMLLIB_ERR_VALUE = 6,    /**< the element's text is not a 32-bit integer */
    XMLLIB_ERR_BUFFER = 7,   /**< the value does not fit the given length */
    XMLLIB_ERR_SYSTEM = 8    /**< memory ran out, or the installation path is unknown */
};

#ifdef __cplusplus
extern "C" {
#endif

/** Initialises the library for a module. @param[in] module  its name, neither null nor empty */
KZMXML_API int32_t xmllib_init(const char* module);

KZMXML_API int32_t xmllib_term(void);

/**
 * Reads the file into memory. While it is loaded, further calls only raise a count; a change of the file becomes
 * visible when the file is loaded again after all calls have been undone.
 *
 * @param[in] flags  reserved: 0
 * @retval XMLLIB_ERR_FILE, XMLLIB_ERR_FORMAT, XMLLIB_ERR_SYSTEM  nothing is loaded
 */
KZMXML_API int32_t xmllib_load_config(int32_t flags);

KZMXML_API int32_t xmllib_unload_config(void);

/**
 * Opens a part of the configuration for reading: policy NAME is the element /root/NAME.
 *
 * @retval XMLLIB_ERR_NOTFOUND  there is no such element
 */
KZMXML_API int32_t xmllib_load_policy(const char* policy);

KZMXML_API int32_t xmllib_unload_policy(const char* policy);

/**
 * Reads an element's value. If an element contains several elements of one name, the first of them is used.
 *
 * @param[in]     path    names of elements from the root down, each after a '/': "/root/all/num/server". The policy,
 *                        "all" in this example, must be loaded
 * @param[in]     type    1: a decimal integer of 32 bits, with an optional sign and white space around it
 * @param[out]    value   receives the 4 bytes of an int32_t; need not be aligned
 * @param[in,out] length  bytes that `value` can hold; on success the bytes used, 4
 * @retval XMLLIB_ERR_BUFFER    `length` is below 4; reported before the errors that follow
 * @retval XMLLIB_ERR_NOTFOUND  there is no such element, or its policy is not loaded
 * @retval XMLLIB_ERR_VALUE     the element's text is not such an integer, or the element contains other elements

 */
KZMXML_API int32_t xmllib_get_value(const char* path, int32_t type, void* value, int32_t* length);

#ifdef __cplusplus
}
#endif

#endif
