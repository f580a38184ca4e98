// The page, with its style and its script, as the build has put them into this program.
#pragma once

#include <string_view>

namespace shmnmweb {

extern const std::string_view page;
/// The Content-Security-Policy that admits the page's own style and script, by their hashes, and nothing else.
extern const char* const page_policy;

}  // namespace shmnmweb
