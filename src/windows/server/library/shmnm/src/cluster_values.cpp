// The header's values: the three maximum values, the hb info pair, and four state words. Stored and read, never
// interpreted.
#include "change_note.h"
#include "frame.h"

namespace shmnm {
namespace {

uint32_t set_max_values(Call call, const Region& region, int32_t servers, int32_t max_hb, int32_t max_np) {
    if (servers < 1 || max_hb < 1 || max_np < 1) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    const ChangeNote note(region, true, {.call = NotedCall::setmaxvalue, .words = {servers, max_hb, max_np}});
    write_maxima(region, servers, max_hb, max_np);
    return SHMNM_OK;
}

uint32_t get_max_values(Call call, const Region& region, uint32_t* servers, uint32_t* max_hb, uint32_t* max_np) {
    if (!servers || !max_hb || !max_np) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    *servers = static_cast<uint32_t>(load(region.header().max_servers));
    *max_hb = static_cast<uint32_t>(load(region.header().max_hb));
    *max_np = static_cast<uint32_t>(load(region.header().max_np));
    return SHMNM_OK;
}

uint32_t set_hb_info(Call call, const Region& region, int32_t a, int32_t b) {
    if (a < 1 || b < 1) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    static_assert(offsetof(shmnm_header, hbinfo_b) == 0 && offsetof(shmnm_header, hbinfo_a) == 4);
    store_pair(&region.header(), {static_cast<uint32_t>(b), static_cast<uint32_t>(a)});
    return SHMNM_OK;
}

uint32_t get_hb_info(Call call, const Region& region, uint32_t* a, uint32_t* b) {
    if (!a || !b) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    *a = static_cast<uint32_t>(load(region.header().hbinfo_a));
    *b = static_cast<uint32_t>(load(region.header().hbinfo_b));
    return SHMNM_OK;
}

using ClusterWord = uint32_t shmnm_header::*;

uint32_t set_cluster_word(Call, const Region& region, ClusterWord word, uint32_t value) {
    store(region.header().*word, value);
    return SHMNM_OK;
}

uint32_t get_cluster_word(Call call, const Region& region, ClusterWord word, uint32_t* value) {
    if (!value) return call.fail(SHMNM_ERR_PARAM, "invalid param");
    *value = load(region.header().*word);
    return SHMNM_OK;
}

}  // namespace
}  // namespace shmnm

using namespace shmnm;

uint32_t shmnm_setmaxvalue_ex(int32_t servers, int32_t max_hb, int32_t max_np) {
    return framed<set_max_values>("_setmaxvalue_ex", servers, max_hb, max_np);
}
uint32_t shmnm_getmaxvalue_ex(uint32_t* servers, uint32_t* max_hb, uint32_t* max_np) {
    return framed<get_max_values>("_getmaxvalue_ex", servers, max_hb, max_np);
}
uint32_t shmnm_sethbinfo_ex(int32_t a, int32_t b) {
    return framed<set_hb_info>("_sethbinfo_ex", a, b);
}
uint32_t shmnm_gethbinfo_ex(uint32_t* a, uint32_t* b) {
    return framed<get_hb_info>("_gethbinfo_ex", a, b);
}

uint32_t shmnm_setwaitstat(uint32_t value) {
    return framed<set_cluster_word>("_setwaitstat", &shmnm_header::waitstat, value);
}
uint32_t shmnm_getwaitstat(uint32_t* value) {
    return framed<get_cluster_word>("_getwaitstat", &shmnm_header::waitstat, value);
}
uint32_t shmnm_setbwflag(uint32_t value) {
    return framed<set_cluster_word>("_setbwflag", &shmnm_header::bwflag, value);
}
uint32_t shmnm_getbwflag(uint32_t* value) {
    return framed<get_cluster_word>("_getbwflag", &shmnm_header::bwflag, value);
}
uint32_t shmnm_setbwflagdisk(uint32_t value) {
    return framed<set_cluster_word>("_setbwflagdisk", &shmnm_header::bwflagdisk, value);
}
uint32_t shmnm_getbwflagdisk(uint32_t* value) {
    return framed<get_cluster_word>("_getbwflagdisk", &shmnm_header::bwflagdisk, value);
}
uint32_t shmnm_setclstat(uint32_t value) {
    return framed<set_cluster_word>("shmnm_setclstat", &shmnm_header::clstat, value);
}
uint32_t shmnm_getclstat(uint32_t* value) {
    return framed<get_cluster_word>("shmnm_getclstat", &shmnm_header::clstat, value);
}
