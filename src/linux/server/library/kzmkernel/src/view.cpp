#include "view.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>

#include "error.h"
#include "kzmkernel.h"
#include "process.h"

namespace kzmkernel {
namespace {

constexpr uint64_t granularity = 65536;

struct View {
    void* address;
    size_t size;
    dev_t device;
    ino_t inode;
    View* next;
};

constinit View* views = nullptr;

View** place_of(const void* address) {
    View** at = &views;
    while (*at && (*at)->address != address) at = &(*at)->next;
    return at;
}

}  // namespace

uint32_t map_view(KeptDescriptor& file, uint64_t file_size, bool writable, uint64_t offset, size_t length,
                  void*& view) noexcept {
    if (offset % granularity != 0) return KZMKERNEL_ERROR_MAPPED_ALIGNMENT;
    if (offset >= file_size || length > file_size - offset) return KZMKERNEL_ERROR_ACCESS_DENIED;
    const uint64_t wanted = length != 0 ? length : file_size - offset;
    const size_t size = (wanted + page - 1) / page * page;

    const ProcessLock locked;
    // The program may have closed the descriptor, and its number may now belong to another file.
    if (!file.is_there()) return KZMKERNEL_ERROR_INVALID_HANDLE;
    View* const made = new (std::nothrow) View{nullptr, size, file.device(), file.inode(), views};
    if (!made) return KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY;
    made->address = mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, file.get(),
                         static_cast<off_t>(offset));
    if (made->address == MAP_FAILED) {
        const int error = errno;
        delete made;
        return windows_error(error);
    }
    views = made;
    view = made->address;
    return 0;
}

bool unmap_view(const void* view) noexcept {
    const ProcessLock locked;
    View** const at = place_of(view);
    View* const found = *at;
    if (!found) return false;
    *at = found->next;
    munmap(found->address, found->size);
    delete found;
    return true;
}

bool is_viewed_here(dev_t device, ino_t inode) noexcept {
    const View* view = views;
    while (view && !(view->device == device && view->inode == inode)) view = view->next;
    return view != nullptr;
}

size_t view_size(const void* view) noexcept {
    const ProcessLock locked;
    const View* const found = *place_of(view);
    return found ? found->size : 0;
}

}  // namespace kzmkernel
