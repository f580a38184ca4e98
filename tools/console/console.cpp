#include "console/console.h"

#include <cerrno>
#include <cstring>

namespace console {

std::string write(std::FILE* stream, std::string_view text) {
    const Written to_console = write_to_console(stream, text);
    if (to_console == Written::all) return "";
    if (to_console == Written::not_all) return "the console does not accept it";
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stream) == text.size() && std::fflush(stream) == 0) return "";
    // What is still buffered would fail again as the process ends.
    const int error = errno;
    return error == EPIPE || error == EINVAL ? "its reader has closed it" : std::strerror(error);
}

}  // namespace console
