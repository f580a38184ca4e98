// The network-wide states: a second state word for each pair of an hb resource and a server, in an area of its own.
#include "state_grid.h"

using namespace shmnm;

uint32_t shmnm_setrscsvstat_nw(const char* type, const char* name, int32_t svid, uint32_t stat) {
    return framed<set_cell>("_setrscsvstat_nw", hb, network_states, type, name, svid, stat);
}
uint32_t shmnm_getrscsvstat_nw(const char* type, const char* name, int32_t svid, uint32_t* stat) {
    return framed<get_cell>("_getrscsvstat_nw", hb, network_states, type, name, svid, stat);
}
uint32_t shmnm_enumrscsvstat_nw(const char* type, const char* name, uint32_t* buf, uint32_t* size) {
    return framed<list_row>("_enumrscsvstat_nw", hb, network_states, type, name, buf, size);
}
uint32_t shmnm_enumsvrscstat_nw(const char* svname, uint32_t* buf, uint32_t* size) {
    return framed<list_column>("_enumsvrscstat_nw", hb, network_states, svname, buf, size);
}
