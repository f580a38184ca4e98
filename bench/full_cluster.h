// A region that is full: 128 servers, 16 hb and 16 np resources.
#pragma once

#include <stdexcept>
#include <string>

#include "shmnm.h"

namespace bench {

inline constexpr int servers = 128, resources = 16;

inline void expect(uint32_t result) {
    if (result != SHMNM_OK) throw std::runtime_error("the library refused a call with code " + std::to_string(result));
}

/// Creates it.
inline void fill() {
    expect(shmnm_create());
    for (int i = 0; i < servers; ++i) expect(shmnm_addnode(("server" + std::to_string(i)).c_str(), i));
    for (int i = 0; i < resources; ++i) {
        expect(shmnm_addhbrsc("lan", ("lanhb" + std::to_string(i)).c_str(), 0));
        expect(shmnm_addnprsc("ping", ("pingnp" + std::to_string(i)).c_str(), 0));
    }
}

}  // namespace bench
