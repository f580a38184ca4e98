// Loads the library when it is first needed. So reading a dump or printing help makes no kernel object, and if the lock
// is refused the program can report an error; otherwise it could not even start.
#pragma once

#include <cstdint>

#include "shmnm.h"

namespace picture {

/// A function of the library, with its name for messages.
template <typename Pointer>
struct Function;

template <typename... Arguments>
struct Function<uint32_t (*)(Arguments...)> {
    uint32_t (*pointer)(Arguments...);
    const char* name;

    uint32_t operator()(Arguments... arguments) const { return pointer(arguments...); }
};

#define PICTURE_FUNCTIONS(X)   \
    X(shmnm_create)            \
    X(shmnm_attach)            \
    X(shmnm_detach)            \
    X(shmnm_delete)            \
    X(shmnm_clear)             \
    X(shmnm_rolock)            \
    X(shmnm_rounlock)          \
    X(shmnm_rwlock)            \
    X(shmnm_rwunlock)          \
    X(shmnm_setmaxvalue_ex)    \
    X(shmnm_sethbinfo_ex)      \
    X(shmnm_setwaitstat)       \
    X(shmnm_setbwflag)         \
    X(shmnm_setbwflagdisk)     \
    X(shmnm_setclstat)         \
    X(shmnm_addnode)           \
    X(shmnm_rmnode)            \
    X(shmnm_modifynode)        \
    X(shmnm_setnodestat)       \
    X(shmnm_setnodestat_nw)    \
    X(shmnm_setdownnotifystat) \
    X(shmnm_setisolateflag)    \
    X(shmnm_setpingstat)       \
    X(shmnm_setholdstat)       \
    X(shmnm_addhbrsc)          \
    X(shmnm_addnprsc)          \
    X(shmnm_rmhbrsc)           \
    X(shmnm_rmnprsc)           \
    X(shmnm_modifyhbrsc)       \
    X(shmnm_modifynprsc)       \
    X(shmnm_sethbrscstat)      \
    X(shmnm_setnprscstat)      \
    X(shmnm_sethbrscsvstat)    \
    X(shmnm_setnprscsvstat)    \
    X(shmnm_sethbdescript)     \
    X(shmnm_setnpdescript)     \
    X(shmnm_setnpsimu)         \
    X(shmnm_setrscsvstat_nw)   \
    X(shmnm_setfstrscstat)     \
    X(shmnm_setfstdescript)    \
    X(shmnm_setfstrscpid)      \
    X(shmnm_gethbinfo_ex)      \
    X(shmnm_getwaitstat)       \
    X(shmnm_getbwflag)         \
    X(shmnm_getbwflagdisk)     \
    X(shmnm_getclstat)         \
    X(shmnm_getnodename)       \
    X(shmnm_getnodestat)       \
    X(shmnm_getnodestat_nw)    \
    X(shmnm_getdownnotifystat) \
    X(shmnm_getisolateflag)    \
    X(shmnm_getpingstat)       \
    X(shmnm_getholdstat)       \
    X(shmnm_gethbrscstat)      \
    X(shmnm_getnprscstat)      \
    X(shmnm_gethbrscsvstat)    \
    X(shmnm_getnprscsvstat)    \
    X(shmnm_getrscsvstat_nw)

struct Library {
#define PICTURE_FUNCTION(name) Function<decltype(&::name)> name;
    PICTURE_FUNCTIONS(PICTURE_FUNCTION)
#undef PICTURE_FUNCTION
};

/// A function that takes these arguments.
template <typename... Arguments>
using Call = Function<uint32_t (*)(Arguments...)> Library::*;

/// Loads the library at the first call. Open the lock's mutex first, so that loading cannot fail because of it.
/// @throws Error  the library, or a function of it, is missing
const Library& library();

/// The meaning of a result code of the library.
const char* meaning(uint32_t result);

/// @throws Error  `result` is not SHMNM_OK; the message names the function and the meaning of its result
void expect_ok(const char* function, uint32_t result);

/// Calls a function. @throws Error  it failed
template <typename... Parameters, typename... Arguments>
void call(const Function<uint32_t (*)(Parameters...)>& function, Arguments... arguments) {
    expect_ok(function.name, function(arguments...));
}

}  // namespace picture
