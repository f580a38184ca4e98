#include "picture/installation.h"

namespace picture {

/// The zip is its own installation.
void use_packaged_installation() {}

}  // namespace picture
