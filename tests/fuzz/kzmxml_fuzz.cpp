// Texts that a fuzzer makes up, given to the parser of the cluster's configuration: it takes each or refuses it, and
// what it takes is a tree with one root that the limits hold for.
#include <cstdlib>
#include <string>

#include "document.h"
#include "fuzz/input.h"
#include "well_formed.h"

namespace {

using fuzz::require;

size_t depth_of(const kzmxml::Element& element) {
    size_t deepest = 0;
    for (const auto& [name, child] : element) {
        if (name == "<xmlattr>") continue;
        require(!name.empty() && name.find_first_of("<>/&'\"= \t\r\n") == std::string::npos);
        deepest = std::max(deepest, depth_of(child) + 1);
    }
    return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kzmxml::Element document;
    const int32_t result = kzmxml::parse_document(text, document);
    // What the scan lets pass must be what the parser understands too, or one of them reads it wrongly.
    require(result == (kzmxml::is_well_formed(text) ? XMLLIB_OK : XMLLIB_ERR_FORMAT));
    require(document.size() == (result == XMLLIB_OK ? 1 : 0));
    require(depth_of(document) <= kzmxml::depth_limit);
    const kzmxml::Element* const element = kzmxml::find(document, "/root/all/num/server");
    int32_t value = 0;
    if (element) kzmxml::read_integer(*element, value);
    if (fuzz::plants_fault()) require(value <= 16);
    return 0;
}
