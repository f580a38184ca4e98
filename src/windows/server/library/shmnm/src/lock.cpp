// The cross-process lock: one named mutex, whether it is taken for reading or for writing.
#include "frame.h"
#include "kernel.h"

namespace shmnm {
namespace {

[[gnu::always_inline]] inline uint32_t take_lock(Tag tag, uint32_t timeout_ms) {
    const Call call{tag};
    call.enter();
    // Deliberately, only a time-out is reported. If the owner ended, this thread owns the lock now; a failed wait
    // counts as success too.
    if (kernel::wait(region_mutex(), timeout_ms) != kernel::wait_timeout) return call.leave(SHMNM_OK);
    return call.leave(call.fail(SHMNM_ERR_LOCK, "WaitForSingleObject() failed(errno:%d)", kernel::last_error()));
}

[[gnu::always_inline]] inline uint32_t release_lock(Tag tag) {
    const Call call{tag};
    call.enter();
    kernel::release(region_mutex());
    return call.leave(SHMNM_OK);
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_rolock(uint32_t timeout_ms) {
    return take_lock("_rolock", timeout_ms);
}
uint32_t shmnm_rounlock(void) {
    return release_lock("_rounlock");
}
uint32_t shmnm_rwlock(uint32_t timeout_ms) {
    return take_lock("_rwlock", timeout_ms);
}
uint32_t shmnm_rwunlock(void) {
    return release_lock("_rwunlock");
}
