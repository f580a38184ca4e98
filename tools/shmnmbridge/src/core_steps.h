// The core's calls as calls of the library.
#pragma once

#include <functional>

#include "core_messages.h"
#include "picture/step.h"

namespace bridge {

/// @throws picture::Error  the library cannot be loaded
picture::Step to_step(const Call& call);

/// Reads the word that a call sets, by the library itself, so that both find the same word. @return false: it is not
/// there, or the library would find another server's column. Allocates nothing.
using Reading = std::function<bool(AgreedValue& value)>;
/// @throws picture::Error  the library cannot be loaded
Reading to_reading(const Call& call);

}  // namespace bridge
