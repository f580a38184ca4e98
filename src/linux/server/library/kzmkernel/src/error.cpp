#include "error.h"

#include <cerrno>

#include "kzmkernel.h"

namespace kzmkernel {
namespace {

constinit thread_local uint32_t thread_error = 0;

}  // namespace

uint32_t windows_error(int error_number) noexcept {
    switch (error_number) {
        case ENOENT:
            return KZMKERNEL_ERROR_FILE_NOT_FOUND;
        case EMFILE:
        case ENFILE:
            return KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EROFS:
        case ELOOP:    // a symbolic link
        case ENOTDIR:  // a file where the folder should be
        case EISDIR:   // a folder where a file should be
        case EEXIST:
        case ENXIO:  // a socket
            return KZMKERNEL_ERROR_ACCESS_DENIED;
        case EBADF:
            return KZMKERNEL_ERROR_INVALID_HANDLE;
        case ENOMEM:
        case EFBIG:
        case EOVERFLOW:
        case ENOLCK:
        case EAGAIN:
            return KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY;
        case EINVAL:
            return KZMKERNEL_ERROR_INVALID_PARAMETER;
        case ENOSPC:
        case EDQUOT:
            return KZMKERNEL_ERROR_DISK_FULL;
        case ENAMETOOLONG:
            return KZMKERNEL_ERROR_INVALID_NAME;
        default:
            return KZMKERNEL_ERROR_GEN_FAILURE;
    }
}

uint32_t last_error() noexcept {
    return thread_error;
}
void set_last_error(uint32_t error) noexcept {
    thread_error = error;
}

}  // namespace kzmkernel
