// Whom the named objects admit: what a new one is made with, and what an existing one must have to be used.
#pragma once

#include <windows.h>

#include <memory>

namespace kzmutil {

struct Close {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
struct Free {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};
using Handle = std::unique_ptr<void, Close>;
using Local = std::unique_ptr<void, Free>;

/// The security of a new object: owned by the user, who with the administrators and the system may do everything;
/// closed to all others. Nothing is inherited from above. Null on failure.
Local owner_administrators_and_system();

/// What others may be allowed: to look at the object. All other rights can change it, deny it to its users or lead to
/// more rights. Waiting counts: whoever may wait for a mutex may take it and keep it.
constexpr ACCESS_MASK reading_a_mutex = GENERIC_READ | READ_CONTROL | MUTANT_QUERY_STATE;
constexpr ACCESS_MASK reading_a_mapping = GENERIC_READ | READ_CONTROL | SECTION_QUERY | SECTION_MAP_READ;

/// Whether an object belongs to the user, the administrators or the system, and its list allows others `reading` at
/// most. The user is the one that this thread acts as. Processes of the user are trusted at any integrity level.
/// @param[in] object  opened with READ_CONTROL
bool is_trusted(HANDLE object, ACCESS_MASK reading);

}  // namespace kzmutil
