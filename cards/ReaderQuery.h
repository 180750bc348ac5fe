// The card in a reader, asked of the PC/SC service beside the PKCS#11 module.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "harness/KnownCard.h"

namespace kestrel {

using ReaderName = std::array<char, 512>;  // zero-terminated

// Copies the name that `readerIndex` stands for out of a multi-string of `listLength` bytes: 0 is
// the first reader, anything above is the second one. Empty when the list ends before it.
void pickReaderName(const char* readerList, ReaderName& nameOut, std::uint32_t readerIndex,
                    std::size_t listLength);

// Reads and prints the ATR of the card in a reader and looks it up in `table`. Returns the PC/SC
// status 0 when the card is a row of 1 and above, otherwise SCARD_F_INTERNAL_ERROR: row 0 counts as
// no match. `matchIndex`, -1 on entry, is what matchAtr() returned, unchanged when no ATR was read.
// Prints no failure.
std::uint32_t queryReaderAtr(std::int32_t& matchIndex, std::uint32_t readerIndex,
                             std::span<const KnownCard> table);

}  // namespace kestrel
