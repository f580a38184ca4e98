// The access control of named objects: who may use a new object, and which existing objects may be used.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

namespace kzmutil {

struct Close {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
struct Free {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};
using Handle = std::unique_ptr<void, Close>;
using Local = std::unique_ptr<void, Free>;

/// The security descriptor of a new object. The user owns it; the user, administrators and the system have all rights;
/// others have none. It inherits nothing. Null on failure, with the reason in the last error.
/// @param[in] readers  a group that may map shared memory for reading and nothing else: its name in UTF-8 or its
///                     identifier, such as S-1-5-32-545; empty: none
Local new_security(const std::string& readers);

/// The rights that others may have: only rights to read the object. All other rights let others change it, deny it to
/// its users or get more rights. So does the right to wait for a mutex, because it lets others take and keep it.
constexpr ACCESS_MASK reading_a_mutex = GENERIC_READ | READ_CONTROL | MUTANT_QUERY_STATE;
constexpr ACCESS_MASK reading_a_mapping = GENERIC_READ | READ_CONTROL | SECTION_QUERY | SECTION_MAP_READ;

/// Whether an object belongs to the user, the administrators or the system, and its access list gives others no right
/// beyond `reading`. The user is the user that this thread acts as. The user's processes are trusted at any integrity
/// level.
/// @param[in] object  opened with READ_CONTROL
bool is_trusted(HANDLE object, ACCESS_MASK reading);

}  // namespace kzmutil
