#include "picture_text.h"

namespace shmnmctl {

std::string to_text(const Picture&, const TextStyle&) {
    return "";
}

}  // namespace shmnmctl
