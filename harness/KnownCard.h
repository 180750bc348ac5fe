// One card that kestrel can name by its ATR.
#pragma once

#include <cstdint>
#include <string_view>

// A row of the known-card table. ATR and mask are two-digit lower-case hexadecimal bytes separated
// by commas, of equal length; a mask bit of 0 means that the ATR's bit does not count.
struct KnownCard {
  std::string_view atr;
  std::string_view atrMask;
  std::string_view cardName;
  std::int32_t flag = 1;  // 1 in every row, read by nobody
};
