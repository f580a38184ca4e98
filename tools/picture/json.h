// The picture as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "picture/interrupted.h"
#include "picture/json_text.h"
#include "picture/keys.h"
#include "picture/picture.h"
#include "picture/snapshot.h"

namespace picture {

/// Objects keep the order in which their members were added.
using Json = nlohmann::ordered_json;

/// A new document of a kind, with the version of its schema.
Json document(const char* kind);
/// A document in one line, with a newline.
std::string line(const Json& document);

/// The same for a document that is written part by part: its beginning, and the whole line once all is written.
JsonText document_text(const char* kind);
std::string line(JsonText& document);

/// The whole picture, as document "status" in one line with a newline.
std::string status_line(const Snapshot& snapshot, const Picture& picture);
/// The member "bridge" of that document.
std::string to_json_text(const Bridge& bridge);

/// The same as values, for what changes them.
Json to_json(const Snapshot& snapshot, const Picture& picture);

/// A value as JSON shows it: a number, null for none; numbers of more than 53 bits as text, because many readers of
/// JSON would round them.
Json to_json(const Value& value);

/// The values of words by their keys.
Json to_json(const std::vector<Word>& words);

Json to_json(const std::vector<Interrupted>& changes);

}  // namespace picture
