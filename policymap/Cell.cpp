#include "policymap/Cell.h"

namespace Cell {

namespace {
uint32_t currentCellId = 1;
}

uint32_t cellId() { return currentCellId; }
void cellIdIs(uint32_t id) { currentCellId = id; }

}  // namespace Cell
