#include "picture/layout.h"

#include <fmt/format.h>

#include <algorithm>

#include "shmnm.h"

namespace picture {
namespace {

uint64_t added(uint64_t left, uint64_t right) {
    return std::min(left + right, Layout::nowhere);
}

uint64_t multiplied(uint64_t left, uint64_t right) {
    return right != 0 && left > Layout::nowhere / right ? Layout::nowhere : left * right;
}

uint64_t wide(int32_t count) {
    return count < 0 ? Layout::nowhere : static_cast<uint64_t>(count);
}

}  // namespace

std::string to_text(const Counts& counts) {
    return fmt::format("servers {}, hb {}, np {}, fst {}", counts.servers, counts.hb, counts.np, counts.fst);
}

uint64_t in_pages(uint64_t size) {
    constexpr uint64_t page_size = 4096;
    return (size + page_size - 1) / page_size * page_size;
}

Layout::Layout(const Counts& counts) {
    const uint64_t s = wide(counts.servers), h = wide(counts.hb), n = wide(counts.np), f = wide(counts.fst);
    servers = sizeof(shmnm_header);
    hb = added(servers, multiplied(sizeof(shmnm_server), s));
    np = added(hb, multiplied(sizeof(shmnm_resource), multiplied(h, s)));
    fst = added(np, multiplied(sizeof(shmnm_resource), multiplied(n, s)));
    fst_pids = added(fst, multiplied(sizeof(shmnm_resource), f));
    network = added(fst_pids, multiplied(sizeof(shmnm_fst_pid), multiplied(f, s)));
    size = added(network, multiplied(sizeof(uint32_t), multiplied(added(multiplied(2, h), n), s)));
}

}  // namespace picture
