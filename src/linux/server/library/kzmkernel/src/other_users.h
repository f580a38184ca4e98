// Objects of other users, as far as the system shows them to all users.
#pragma once

#include <sys/types.h>

namespace kzmkernel {

/// Finds another user who holds a mapping of this name. The user's folder alone is no proof: it stays when its objects
/// are gone.
bool find_other_user(const char* mapping, uid_t& user) noexcept;

}  // namespace kzmkernel
