// The picture as JSON.
#pragma once

#include "context.h"
#include "picture.h"
#include "words.h"

namespace shmnmctl {

/// The whole picture, as document "status".
Json to_json(const Snapshot& snapshot, const Picture& picture);

/// A value as JSON shows it: a number, null for none; numbers of more than 53 bits as text, since many readers of JSON
/// would round them.
Json to_json(const Value& value);

/// The values of words by their keys.
Json to_json(const std::vector<Word>& words);

}  // namespace shmnmctl
