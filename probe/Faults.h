// Signals by which a fault of the module ends the process: what it touched is left on the board,
// and then the signal has its effect.
#pragma once

#include "probe/Board.h"

namespace kestrel::probe {

// For the process that loads the module, once. `board` outlives it.
void noteFaultsOn(Board& board);

// Where a stack has overflowed a handler needs another. Each thread that calls the module has one.
void useFaultStack();

}  // namespace kestrel::probe
