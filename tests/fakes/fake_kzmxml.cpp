#include "fakes/routes.h"
#include "kzmxml.h"

namespace {

const fakes::KzmxmlRoutes* routes = nullptr;
constexpr int32_t not_found = 5;

}  // namespace

void fake_kzmxml_route(const fakes::KzmxmlRoutes* new_routes) {
    routes = new_routes;
}

int32_t xmllib_init(const char* module) {
    return routes ? routes->init(module) : 0;
}
int32_t xmllib_term(void) {
    return routes ? routes->term() : 0;
}
int32_t xmllib_load_config(int32_t flags) {
    return routes ? routes->load_config(flags) : 0;
}
int32_t xmllib_unload_config(void) {
    return routes ? routes->unload_config() : 0;
}
int32_t xmllib_load_policy(const char* policy) {
    return routes ? routes->load_policy(policy) : not_found;
}
int32_t xmllib_unload_policy(const char* policy) {
    return routes ? routes->unload_policy(policy) : not_found;
}
int32_t xmllib_get_value(const char* path, int32_t type, void* value, int32_t* length) {
    return routes ? routes->get_value(path, type, value, length) : not_found;
}
