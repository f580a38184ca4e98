#include <algorithm>

#include "picture/platform.h"

namespace picture::platform {

std::vector<std::string> arguments(int count, char** given) {
    return {given + std::min(count, 1), given + count};
}

}  // namespace picture::platform
