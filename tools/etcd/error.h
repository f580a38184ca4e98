// A setting that cannot be used. Its text says what to do.
#pragma once

#include <stdexcept>

namespace etcd {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace etcd
