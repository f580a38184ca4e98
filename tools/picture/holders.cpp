#include "picture/holders.h"

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/platform.h"

namespace picture {

Holders holders(const Access& access) {
    constexpr uint32_t map_read = 4;
    LiveRegion(access).expect();
    void* const mapping = KzmutilOpenNamedFileMapping(map_read, 0, mapping_name);
    const void* const view = mapping ? platform::map_for_reading(mapping) : nullptr;
    std::optional<Holders> found;
    if (view) {
        found = platform::holders(view);
        platform::unmap(view);
    }
    if (mapping) platform::close(mapping);
    if (!view) throw Error(ErrorKind::failed, "cannot map the region, or it has just ended");
    // branch: Windows does not tell, nor Linux without /proc, which no test lacks
    if (!found) throw Error(ErrorKind::refused, "this system does not tell which processes hold the region");
    return *found;
}

}  // namespace picture
