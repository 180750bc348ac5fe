// One card that kestrel can name by its ATR.
#pragma once

#include <cstdint>

namespace kestrel {

// A row of a known-card table, of zero-terminated texts. ATR and mask are two-digit lower-case
// hexadecimal bytes separated by commas, of equal length; a mask bit of 0 means that the ATR's bit
// does not count. A null mask makes the ATR a text to compare with.
struct KnownCard {
  const char* atr = "";
  const char* atrMask = "";
  const char* cardName = "";
  std::int32_t flag = 1;  // 1 in every row, read by nobody
};

}  // namespace kestrel
