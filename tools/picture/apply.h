// "apply": the live region is made to show a document's picture, under one lock and through the library's calls.
#pragma once

#include <vector>

#include "picture/differences.h"
#include "picture/live.h"
#include "picture/picture_document.h"
#include "picture/step.h"

namespace picture {

/// What differs between the live region and a document that calls can make it show. Nothing is changed.
/// @param[in] force  as for Change
/// @throws Error  as apply() does before its first call
std::vector<Difference> differences_to_apply(const Access& access, const Document& target, bool force);

/// Makes the live region show a document's picture. All calls are found before the first is made; if one fails all the
/// same, because another process changes the tables without the lock, the region's bytes are put back.
/// @return what was different
/// @throws Error  there is no region, it was laid out by other counts, no calls make it so, or a call failed: nothing
///                was changed; or another process set words without the lock meanwhile
std::vector<Difference> apply(const Access& access, const Document& target, bool force);

/// Makes calls on the region that this process is attached to, all or none. The caller holds the lock.
/// @param[in] before  the region as it is, all bytes
/// @throws Error  one failed, and the bytes were put back
void make_all_or_none(const std::vector<Step>& steps, const Snapshot& before);

}  // namespace picture
