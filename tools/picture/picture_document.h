// A picture as a document: everything that calls of the library can set, with the counts of its region. Exports are
// written and read here, and dumps are taken for what they show.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "picture/decode.h"
#include "picture/json.h"
#include "picture/snapshot.h"

namespace picture {

struct Document {
    Counts counts;  ///< of the region
    Picture picture;
};

/// What a copy shows.
/// @throws Error  it does not hold all the records that it counts
Document document_of(const Snapshot& snapshot);

/// What is left in a copy that may be cut.
Document document_of_rest(const Snapshot& snapshot);

/// As document "picture".
Json to_json(const Document& document);

/// @param[in] text  a document "picture"
/// @throws Error  it is not, or something in it is missing, unknown or does not fit; the line names the place
Document document_from(std::string_view text);

/// An export or a dump.
/// @throws Error  the file is neither, or cannot be read
Document read_document(const std::string& file);
/// The same from the bytes of a file.
Document document_in(std::vector<uint8_t> bytes, const std::string& file);

}  // namespace picture
