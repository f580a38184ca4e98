#include "fakes/routes.h"
#include "kzmlog.h"

namespace {

const fakes::KzmlogRoutes* routes = nullptr;

}  // namespace

void fake_kzmlog_route(const fakes::KzmlogRoutes* new_routes) {
    routes = new_routes;
}

int32_t kzmlog_open(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags,
                    const char* channel) {
    return routes ? routes->open(module, log, level, size, flags, channel) : 0;
}
int32_t kzmlog_close(void* log) {
    return routes ? routes->close(log) : 0;
}
int32_t kzmlog_write(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line, const char* function,
                     const char* message) {
    return routes ? routes->write(log, level, flags, file, line, function, message) : 0;
}
