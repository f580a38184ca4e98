/**
 * @file kzmxml.h
 * Reads the cluster's configuration, etc/cluster.xml below the installation path.
 *
 * What holds for every function unless it says otherwise:
 *  - Result   XMLLIB_OK (0) or one of the codes below. A failed call changes nothing, neither here nor in its outputs.
 *  - Order    init, load_config, load_policy, get_value, and the reverse to end. A call out of order is refused
 *             (XMLLIB_ERR_ORDER); a bad argument is reported before that.
 *  - Nesting  init, load_config and load_policy count. Each is undone by one term, unload_config or unload_policy; the
 *             last of these releases what the first took. The last unload_config also unloads all policies, the last
 *             term everything.
 *  - Scope    what is initialised and loaded belongs to the process, not to a thread or a module.
 *  - Threads  any thread may call any function.
 *
 * The file is a regular file, or a link to one; a FIFO, a device, a socket or a folder is refused at once. It is one
 * well-formed XML document of at most 16 MiB, 256 levels of elements and 100,000 elements and attributes, without a
 * document type: there are no entities beside the five predefined ones, and nothing outside the file is read.
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
    XMLLIB_ERR_ORDER = 2,    /**< what the call needs or ends is not initialised or loaded */
    XMLLIB_ERR_FILE = 3,     /**< the file is missing, unreadable, no regular file or larger than 16 MiB */
    XMLLIB_ERR_FORMAT = 4,   /**< the file is no document as described above */
    XMLLIB_ERR_NOTFOUND = 5, /**< no such policy, or no such element in a loaded policy */
    XMLLIB_ERR_VALUE = 6,    /**< the element's text is no 32-bit integer */
    XMLLIB_ERR_BUFFER = 7,   /**< the value does not fit the given length */
    XMLLIB_ERR_SYSTEM = 8    /**< memory ran out, or the installation path is unknown */
};

#ifdef __cplusplus
extern "C" {
#endif

/** Initialises for a module. @param[in] module  its name, not null nor empty */
KZMXML_API int32_t xmllib_init(const char* module);

KZMXML_API int32_t xmllib_term(void);

/**
 * Reads the file into memory. While it is loaded, further calls only count: a file that is changed meanwhile shows once
 * all of them have been undone.
 *
 * @param[in] flags  reserved: 0
 * @retval XMLLIB_ERR_FILE, XMLLIB_ERR_FORMAT, XMLLIB_ERR_SYSTEM  nothing is loaded
 */
KZMXML_API int32_t xmllib_load_config(int32_t flags);

KZMXML_API int32_t xmllib_unload_config(void);

/**
 * Opens a part of the configuration to be read: policy NAME is the element /root/NAME.
 *
 * @retval XMLLIB_ERR_NOTFOUND  there is no such element
 */
KZMXML_API int32_t xmllib_load_policy(const char* policy);

KZMXML_API int32_t xmllib_unload_policy(const char* policy);

/**
 * Reads an element's value. Of elements of one name within another the first is taken.
 *
 * @param[in]     path    names of elements from the root down, a '/' before each: "/root/all/num/server". Its policy,
 * "all" in this case, must be loaded
 * @param[in]     type    1: a decimal integer of 32 bits, with an optional sign and white space around it
 * @param[out]    value   receives the 4 bytes of an int32_t; need not be aligned
 * @param[in,out] length  bytes that `value` can hold; on success the bytes used, 4
 * @retval XMLLIB_ERR_BUFFER    `length` is below 4; reported before what follows
 * @retval XMLLIB_ERR_NOTFOUND  there is no such element, or its policy is not loaded
 * @retval XMLLIB_ERR_VALUE     the element's text is anything else, or it holds other elements
 */
KZMXML_API int32_t xmllib_get_value(const char* path, int32_t type, void* value, int32_t* length);

#ifdef __cplusplus
}
#endif

#endif
