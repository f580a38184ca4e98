// The calls of the library that make a region show another picture, found before the first of them is made.
#pragma once

#include <vector>

#include "picture/picture_document.h"
#include "picture/step.h"

namespace picture {

/// The calls that turn the region of `live` into one that shows `target`. No call is made here. Each is accepted if
/// nobody else changes the region meanwhile. Two things pass on the way: the library finds servers by priority where
/// it sets states on servers and simulates, so servers may have other priorities for a while; and a record that is in
/// another place in its table is removed and added anew.
/// @throws Error  no calls make the region so; the line names what they cannot do
std::vector<Step> plan(const Document& live, const Document& target);

}  // namespace picture
