// Opens and closes the columns of a server that is added or removed: calls of their own in the log, but steps of the
// server's change in its note.
#pragma once

#include "change_note.h"

namespace shmnm {

uint32_t add_hb_column(int32_t index, const ChangeNote& server);
uint32_t add_np_column(int32_t index, const ChangeNote& server);
uint32_t remove_hb_column(int32_t index, const ChangeNote& server);
uint32_t remove_np_column(int32_t index, const ChangeNote& server);

}  // namespace shmnm
