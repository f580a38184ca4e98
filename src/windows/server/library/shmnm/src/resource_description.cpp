// The description bytes of the hb and np resources.
#include "resource_description.h"

#include "change_note.h"
#include "resource_table.h"

namespace shmnm {
namespace {

/// Finds the record whose description is set or read. Deliberately, the records are taken to lie 584 bytes apart, as if
/// no state words followed them: unless the maximum of servers is 0, only the record at position 0 is found at its true
/// place.
Found<shmnm_resource> find_described(const Region& region, const Kind& kind, const char* type, const char* name) {
    const Strip strip{region.layout.*kind.states.start, sizeof(shmnm_resource)};
    return find_resource(region, {region, strip, load(region.header().*kind.count)}, type, name);
}

uint32_t set_resource_description(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                                  const void* data, int32_t len) {
    if (!type || !name || !data || len <= 0) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = find_described(region, kind, type, name);
    if (!resource) return not_found(call, type, name);
    const ChangeNote note(region, true,
                          {.call = kind.network ? NotedCall::sethbdescript : NotedCall::setnpdescript,
                           .position = resource.position,
                           .type = type,
                           .name = name,
                           .data = data,
                           .size = static_cast<size_t>(len)});
    put_description(*resource.record, data, len);
    return SHMNM_OK;
}

uint32_t get_resource_description(Call call, const Region& region, const Kind& kind, const char* type, const char* name,
                                  void* buf, const int32_t* size) {
    if (!type || !name || !buf || !size || *size <= 0) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const auto resource = find_described(region, kind, type, name);
    if (!resource) return not_found(call, type, name);
    get_description(buf, *resource.record, *size);
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_sethbdescript(const char* type, const char* name, const void* data, int32_t len) {
    return framed<set_resource_description>("_sethbdescript", hb, type, name, data, len);
}
uint32_t shmnm_setnpdescript(const char* type, const char* name, const void* data, int32_t len) {
    return framed<set_resource_description>("_setnpdescript", np, type, name, data, len);
}
uint32_t shmnm_gethbdescript(const char* type, const char* name, void* buf, const int32_t* size) {
    return framed<get_resource_description>("_gethbdescript", hb, type, name, buf, size);
}
uint32_t shmnm_getnpdescript(const char* type, const char* name, void* buf, const int32_t* size) {
    return framed<get_resource_description>("_getnpdescript", np, type, name, buf, size);
}
