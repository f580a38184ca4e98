// Keys of the words of the picture, which people can read and type: "servers/alpha/nodestat". Names within a key are
// escaped (escape.h), so a key has one part more than it has slashes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "picture/picture.h"
#include "picture/value.h"
#include "picture/words.h"

namespace picture {

struct Word {
    std::string key;
    Value value;
    uint64_t offset = 0;  ///< in the region, in bytes; 0 for a computed word

    bool operator==(const Word&) const = default;
};

/// All words, in the order of the picture. If several records share a name, only the first is listed.
std::vector<Word> words(const Picture& picture);
/// The words of the bridge alone, the last ones of a picture. Without marks there is one: it is not up.
std::vector<Word> words(const Bridge& bridge);

/// Whether a word moves all the time, so that its changes are told only to those who ask for it.
bool moves(std::string_view key);

// What a key names. The pointers are into the picture and the tables of words.
struct ClusterPlace {
    const ClusterWord* word;
};
struct ServerPlace {
    const ServerWord* word;
    const Server* server;
};
struct ResourcePlace {
    const ResourceWord* word;
    const ResourceKind* kind;
    const Resource* resource;
};
struct RowPlace {
    const RowWord* word;
    const ResourceKind* kind;
    const Resource* resource;
    const Server* server;
    size_t column;
};
struct FstPlace {
    const FstWord* word;
};
struct PidPlace {
    const PidWord* word;
    const FstPid* record;
    size_t kind;
};
struct BridgePlace {
    const BridgeWord* word;
};
struct MarkPlace {
    const MarkWord* word;
    const bridge::Mark* mark;
};
using Place =
    std::variant<ClusterPlace, ServerPlace, ResourcePlace, RowPlace, FstPlace, PidPlace, BridgePlace, MarkPlace>;

/// The place that a key names; nothing if there is no such word. Looks only at the records that the key names.
std::optional<Place> locate(const Picture& picture, std::string_view key);

/// The word of a key, the same as in words(); nothing if there is no such word.
std::optional<Word> find(const Picture& picture, std::string_view key);

/// The parts of a key between its slashes.
std::vector<std::string_view> parts_of(std::string_view key);

/// Whether a key lies at or below a prefix: "servers/alpha" holds "servers/alpha/pri", not "servers/alphabet/pri".
/// Every key lies below the empty prefix.
bool is_below(std::string_view key, std::string_view prefix);

/// All possible keys, with capitals in place of names of the region, and what each word means.
struct KeyHelp {
    std::string pattern;  ///< "servers/NAME/nodestat"
    std::string help;
    std::string range;  ///< of the numbers that it accepts: "0 to 4294967295"; "" if it cannot be set
    Values values;      ///< what it can be, whoever wrote it
};
std::vector<KeyHelp> key_help();

}  // namespace picture
