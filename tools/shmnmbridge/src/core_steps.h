// The core's calls as calls of the library.
#pragma once

#include "core_messages.h"
#include "picture/step.h"

namespace bridge {

/// @throws picture::Error  the library cannot be loaded
picture::Step to_step(const Call& call);

}  // namespace bridge
