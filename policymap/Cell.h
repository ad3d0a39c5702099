// Cell::cellId: the number of this router's control-plane cell, which names
// the path the policy status is written to. Set once by the daemon
// (--cell-id, default 1).
#pragma once

#include <cstdint>

namespace Cell {

uint32_t cellId();
void cellIdIs(uint32_t id);

}  // namespace Cell
