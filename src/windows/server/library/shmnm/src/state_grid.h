// The work on a grid of state words: one word, a resource's row, a server's column. The grids are those within the
// resource records and the network-wide one; the exports are left to their subjects.
#pragma once

#include "resource_table.h"

namespace shmnm {

/// Sets or gets the word of a resource, found first by its type (null: of any type) and name, on the first server of a
/// priority. Without such a server the resource is not looked up.
uint32_t set_cell(Call call, const Region& region, const Kind& kind, const Grid& grid, const char* type,
                  const char* name, int32_t svid, uint32_t stat);
uint32_t get_cell(Call call, const Region& region, const Kind& kind, const Grid& grid, const char* type,
                  const char* name, int32_t svid, uint32_t* stat);

/// Copies the words of a resource on all servers to `buf` and their size in bytes to `size`.
uint32_t list_row(Call call, const Region& region, const Kind& kind, const Grid& grid, const char* type,
                  const char* name, uint32_t* buf, uint32_t* size);
/// Copies the words of all resources on a server to `buf`; `size` is left alone, deliberately unlike a row's.
uint32_t list_column(Call call, const Region& region, const Kind& kind, const Grid& grid, const char* svname,
                     uint32_t* buf, uint32_t* size);

}  // namespace shmnm
