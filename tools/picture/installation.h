// Which installation a program of the tools looks at when its user has not chosen one.
#pragma once

namespace picture {

/// Sets the companions' variables as the packages on this machine set them, in share/shmnm/environment below the
/// program's prefix, unless KZM_INSTALL_PATH is set and not empty. An install tree or a zip has no such file and is
/// its own installation. To be called first of all, before any other thread and any call of the library.
void use_packaged_installation();

}  // namespace picture
