#include "kernel_objects.h"

#include "kzmkernel.h"

namespace test {

void* create_mutex(const char* name) {
    return kzmkernel_create_mutex(name);
}
void* create_mapping(uint64_t size, const char* name) {
    return kzmkernel_create_mapping(4, size, name);
}
void* open_mapping(uint32_t access, const char* name) {
    return kzmkernel_open_mapping(access, name);
}
void* map_view(void* mapping, uint32_t access) {
    return kzmkernel_map_view(mapping, access, 0, 0);
}
bool close_handle(void* handle) {
    return kzmkernel_close(handle) != 0;
}
uint32_t last_error() {
    return kzmkernel_last_error();
}
void set_last_error(uint32_t error) {
    kzmkernel_set_last_error(error);
}

}  // namespace test
