// The cards that kestrel can name.
#pragma once

#include <array>

#include "harness/KnownCard.h"

namespace kestrel {

// In the order in which the rows are tried: the first one that fits an ATR names the card.
extern const std::array<KnownCard, 78> KnownCardTable;

}  // namespace kestrel
