/**
 * @file kzmxml.h
 * Reads the cluster's configuration, etc/cluster.xml below the installation path.
 *
 * Every function returns 0 on success and one of the codes below otherwise. The order of use is init, load_config,
 * load_policy, get_value..., unload_policy, unload_config, term; a call out of order is refused. Init and load_config
 * nest: each is undone by one term or unload_config. Any thread may call any function.
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
    XMLLIB_ERR_ORDER = 2,    /**< nothing of this kind is initialised or loaded */
    XMLLIB_ERR_FILE = 3,     /**< the file is missing, unreadable or larger than 16 MiB */
    XMLLIB_ERR_FORMAT = 4,   /**< the file is no well-formed XML document */
    XMLLIB_ERR_NOTFOUND = 5, /**< no such policy or element */
    XMLLIB_ERR_VALUE = 6,    /**< the element's text is no 32-bit integer */
    XMLLIB_ERR_BUFFER = 7,   /**< the value does not fit the given length */
    XMLLIB_ERR_SYSTEM = 8    /**< memory ran out, or the installation path is unknown */
};

#ifdef __cplusplus
extern "C" {
#endif

KZMXML_API int32_t xmllib_init(const char* module);
KZMXML_API int32_t xmllib_term(void);
KZMXML_API int32_t xmllib_load_config(int32_t flags);
KZMXML_API int32_t xmllib_unload_config(void);
KZMXML_API int32_t xmllib_load_policy(const char* policy);
KZMXML_API int32_t xmllib_unload_policy(const char* policy);
KZMXML_API int32_t xmllib_get_value(const char* path, int32_t type, void* value, int32_t* length);

#ifdef __cplusplus
}
#endif

#endif
