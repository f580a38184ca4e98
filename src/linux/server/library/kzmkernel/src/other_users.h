// Objects of other users, as far as the system tells everybody about them.
#pragma once

#include <sys/types.h>

namespace kzmkernel {

/// Finds another user who holds a mapping of this name. A folder alone proves nothing: it stays when its objects are
/// gone.
bool find_other_user(const char* mapping, uid_t& user) noexcept;

}  // namespace kzmkernel
