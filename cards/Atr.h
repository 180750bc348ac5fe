// Answers to reset: hexadecimal text as bytes, and the card that an ATR belongs to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "harness/KnownCard.h"

namespace kestrel {

inline constexpr std::size_t maxAtrLength = 33;  // bytes; no card answers with more

// Turns zero-terminated hexadecimal text into bytes. Blanks, colons and commas may stand between
// bytes; a text of one digit is one byte. `inOutCount` holds the capacity of `out` and receives the
// number of bytes stored, also with an error. Returns hexTextOk, hexTextInvalid (a null argument,
// a lone digit, any other character) or hexTextTooLong (text is left over at the full capacity).
std::uint32_t parseHexText(const char* text, std::uint8_t* out, std::size_t* inOutCount);

// Prints the ATR and returns the index of the first row of `table` that it fits under the row's
// mask, -1 for none. An ATR of more than maxAtrLength bytes fits no row and is printed as empty.
std::int32_t matchAtr(std::span<const KnownCard> table, const std::uint8_t* atrBytes,
                      std::size_t atrLength);

}  // namespace kestrel
