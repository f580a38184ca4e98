// The cross-process lock: one named mutex behind a reading and a writing pair of calls.
#include "frame.h"
#include "kernel.h"

namespace shmnm {
namespace {

[[gnu::always_inline]] inline uint32_t take(Tag tag, uint32_t timeout_ms) {
    const Call call{tag};
    call.enter();
    // Only a time-out is reported, deliberately: an owner that ended has left the lock to this thread, and the result
    // of a wait that failed is success as well.
    if (kernel::wait(region_mutex(), timeout_ms) != kernel::wait_timeout) return call.leave(SHMNM_OK);
    return call.leave(call.fail(SHMNM_ERR_LOCK, "WaitForSingleObject() failed(errno:%d)", kernel::last_error()));
}

[[gnu::always_inline]] inline uint32_t give(Tag tag) {
    const Call call{tag};
    call.enter();
    kernel::release(region_mutex());
    return call.leave(SHMNM_OK);
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_rolock(uint32_t timeout_ms) {
    return take("_rolock", timeout_ms);
}
uint32_t shmnm_rounlock(void) {
    return give("_rounlock");
}
uint32_t shmnm_rwlock(uint32_t timeout_ms) {
    return take("_rwlock", timeout_ms);
}
uint32_t shmnm_rwunlock(void) {
    return give("_rwunlock");
}
