#include "console/console.h"

namespace console {

Written write_to_console(std::FILE*, std::string_view) {
    return Written::is_no_console;
}

}  // namespace console
