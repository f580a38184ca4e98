#include "picture/holders.h"

namespace picture::platform {

std::optional<Holders> holders(const void*) {
    return std::nullopt;
}

}  // namespace picture::platform
