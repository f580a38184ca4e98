// The columns of a server that comes or goes, as the server table opens and closes them: calls of their own in the log,
// steps of the server's change in its note.
#pragma once

#include "change_note.h"

namespace shmnm {

uint32_t add_hb_column(int32_t index, const ChangeNote& server);
uint32_t add_np_column(int32_t index, const ChangeNote& server);
uint32_t remove_hb_column(int32_t index, const ChangeNote& server);
uint32_t remove_np_column(int32_t index, const ChangeNote& server);

}  // namespace shmnm
