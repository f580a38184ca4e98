#include "picture/shared_words.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "picture/keys.h"

namespace picture {
namespace {

constexpr std::string_view of_cluster[] = {"waitstat", "bwflag", "bwflagdisk", "clstat", "hbinfo_a", "hbinfo_b"};
constexpr std::string_view of_server[] = {"nodestat",    "nodestat_nw", "downnotifystat",
                                          "isolateflag", "pingstat",    "holdstat"};
constexpr std::string_view of_resource[] = {"stat", "svstat", "network"};

template <size_t size>
bool has(const std::string_view (&words)[size], std::string_view word) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

}  // namespace

bool is_shared(std::string_view key) {
    const std::vector<std::string_view> part = parts_of(key);
    if (part[0] == "cluster") return part.size() == 2 && has(of_cluster, part[1]);
    if (part[0] == "servers") return part.size() == 3 && has(of_server, part[2]);
    if (part[0] == "hb" || part[0] == "np") return part.size() > 3 && has(of_resource, part[3]);
    return false;
}

}  // namespace picture
